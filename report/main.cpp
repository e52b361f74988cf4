// rvd-report: what the daemon left behind, and what happened.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "report/print/screen.h"

using namespace rvd::report;

namespace {

// Exit statuses.
constexpr int kComplete = 0;
constexpr int kLost = 1;
constexpr int kUnreadable = 2;

bool colours() {
    const char* no_color = getenv("NO_COLOR");
    return isatty(STDOUT_FILENO) != 0 && (no_color == nullptr || *no_color == '\0');
}

void print(const std::string& text) {
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0)
        throw Unreadable("cannot write the report");
}

}  // namespace

int main(int argc, char** argv) try {
    CLI::App app("Says what happened to a phone's modem, from the files that rvd left behind.");
    std::string path;
    app.add_option("evidence", path, "directory, .zip, .tar or .tar.gz of the saved files")
            ->required();
    bool timeline = false;
    app.add_flag("--timeline", timeline, "every line of the daemon in order, with its meaning");
    CLI11_PARSE(app, argc, argv);

    Evidence evidence(path);
    Report report = examine(evidence);
    const Style style = {colours()};
    if (timeline) {
        const std::vector<Event> events = merge_lines(report, evidence);
        print(screen(tell(events), style));
    } else {
        print(screen(report, style));
    }
    return report.anything_lost() ? kLost : kComplete;
} catch (const Unreadable& unreadable) {
    fprintf(stderr, "rvd-report: %s\n", unreadable.what());
    return kUnreadable;
}

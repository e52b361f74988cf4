// rvd-report: what the daemon left behind, and what happened.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fstream>

#include "lab/cli/parse_error.h"
#include "report/print/json.h"
#include "report/print/people.h"
#include "report/print/picture.h"
#include "report/print/screen.h"
#include "report/print/tables.h"
#include "report/scenario/scenario.h"

using namespace rvd::report;

namespace {

// Exit statuses.
constexpr int kComplete = 0;
constexpr int kLost = 1;  // or, of two crashes: they differ
constexpr int kUnreadable = 2;

struct CommandLine {
    std::string path, other, picture;
    bool timeline = false, json = false;
    std::string since, until_a, until_b;
    Selection selection;
};

Style style() {
    const char* no_color = getenv("NO_COLOR");
    return {isatty(STDOUT_FILENO) != 0 && (no_color == nullptr || *no_color == '\0')};
}

void print(const std::string& text) {
    end_progress();
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0)
        throw Unreadable("cannot write the report");
}

void write_file(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    if (!file.flush()) throw Unreadable("cannot write " + path + ": " + strerror(errno));
}

int report(const CommandLine& line) {
    Evidence evidence(line.path);
    Report report = examine(evidence);
    const std::vector<Event> events = merge_lines(report, evidence);
    if (!line.picture.empty())
        write_file(line.picture, picture(line.path, messages_of(tell(events))));
    if (line.json)
        print(json(report, find_troubles(events), tell(events)));
    else if (line.timeline)
        print(screen(tell(events), style()));
    else
        print(screen(report, find_troubles(events), style()));
    return report.anything_lost() ? kLost : kComplete;
}

DeviceTime time_given(const std::string& text) {
    const auto time = parse_time(text);
    if (!time) throw Unreadable(text + ": not a time like \"2020-10-01\" or \"2020-10-01 12:31\"");
    return *time;
}

int list(CommandLine& line) {
    if (!line.since.empty()) line.selection.since = time_given(line.since);
    Evidence evidence(line.path);
    const Report report = examine(evidence, Depth::kList);
    print(list(report, line.selection, style()));
    return report.anything_lost() ? kLost : kComplete;
}

// The last crash, up to a time where one is given.
Incident last_crash(const std::string& path, const std::string& until) {
    const DeviceTime latest = until.empty() ? INT64_MAX : time_given(until) + 59;
    Evidence evidence(path);
    const Report report = examine(evidence);
    for (auto incident = report.incidents.rbegin(); incident != report.incidents.rend();
         ++incident) {
        if (incident->crash && incident->time <= latest) return *incident;
    }
    throw Unreadable(path + ": no crash");
}

int diff(const CommandLine& line) {
    bool alike = true;
    print(compare(last_crash(line.path, line.until_a), last_crash(line.other, line.until_b),
                  style(), alike));
    return alike ? kComplete : kLost;
}

int records(const CommandLine& line) {
    Evidence evidence(line.path);
    const Report report = examine(evidence);
    print(records_table(report, style()));
    const bool damaged =
            std::any_of(report.records.begin(), report.records.end(),
                        [](const RecordFile& file) { return !file.content.damage.empty(); });
    return damaged ? kLost : kComplete;
}

int reproduce(const CommandLine& line) {
    Evidence evidence(line.path);
    Report report = examine(evidence);
    print(scenario(report, merge_lines(report, evidence)));
    return kComplete;
}

CLI::Option* add_evidence(CLI::App& app, std::string& path, const char* name = "evidence") {
    return app.add_option(name, path, "directory, .zip, .tar or .tar.gz of the saved files");
}

int execute(int argc, char** argv) {
    CommandLine line;
    CLI::App app("Says what happened to a phone's modem, from the files that rvd left behind.");
    app.set_version_flag("--version", "rvd-report " RVD_VERSION);
    app.footer(
            "Examples:\n"
            "  rvd-report /data/vendor/log/rvd         what happened, and which files are "
            "complete\n"
            "  rvd-report --timeline pulled.tar.gz     every line in order\n"
            "  rvd-report list --incomplete archive/   the crashes with lost files\n"
            "Exit status: 0 all complete, 1 something lost, 2 could not read.");
    app.get_formatter()->column_width(28);
    add_evidence(app, line.path);
    app.add_flag("--timeline", line.timeline,
                 "every line of the daemon in order, with its meaning");
    app.add_option("--picture", line.picture,
                   "draw what happened as a sequence into this file (SVG)");
    app.add_flag("--json", line.json, "for programs: docs/report.schema.json");

    CLI::App* list_command = app.add_subcommand("list", "one line for each incident");
    add_evidence(*list_command, line.path)->required();
    list_command->add_option("--since", line.since, "from this time on: 2020-10-01 12:31");
    list_command->add_option("--reason", line.selection.reason,
                             "only with this text in the reason");
    list_command->add_flag("--incomplete", line.selection.incomplete,
                           "only incidents with lost files");

    CLI::App* diff_command =
            app.add_subcommand("diff", "the last crashes of two directories, side by side");
    add_evidence(*diff_command, line.path, "first")->required();
    add_evidence(*diff_command, line.other, "second")->required();
    diff_command->add_option("--first-until", line.until_a, "the last crash up to this time");
    diff_command->add_option("--second-until", line.until_b, "the last crash up to this time");

    CLI::App* records_command = app.add_subcommand("records", "silent-reset records, taken apart");
    add_evidence(*records_command, line.path)->required();

    CLI::App* scenario_command =
            app.add_subcommand("scenario", "a scenario for rvd-lab that leads to the same lines");
    add_evidence(*scenario_command, line.path)->required();

    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty() && line.path.empty())
            throw CLI::RequiredError("evidence");
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);
        throw Unreadable(rvd::lab::parse_error_message(app, error));
    }
    if (list_command->parsed()) return list(line);
    if (diff_command->parsed()) return diff(line);
    if (records_command->parsed()) return records(line);
    if (scenario_command->parsed()) return reproduce(line);
    return report(line);
}

}  // namespace

int main(int argc, char** argv) try {
    return execute(argc, argv);
} catch (const std::exception& error) {
    fprintf(stderr, "rvd-report: %s\n", error.what());
    return kUnreadable;
}

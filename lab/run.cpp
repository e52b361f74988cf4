#include "lab/run.h"

#include <stdio.h>
#include <time.h>

#include <algorithm>
#include <map>

#include "lab/checks.h"
#include "lab/driver.h"
#include "lab/gate.h"
#include "lab/phone.h"
#include "lab/timeline.h"

namespace rvd::lab {

namespace {

Time parse_start(const std::string& text) {
    tm parts{};
    const char* end = strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
    if (end == nullptr || *end != '\0') throw Unable("\"" + text + "\" is no date and time");
    return timegm(&parts) * kSecond;
}

// A pass begins and ends with nothing open but the logs. The wait between passes shows it,
// unless a node is open: then the wait is one within a pass.
void check_between_passes(const RunStage& stage, Story& story) {
    const auto open = stage.descriptors();
    for (const auto& [fd, path] : open) {
        if (path == "/dev/boot" || path == "/dev/dump") return;
    }
    for (const auto& [fd, path] : open) {
        if (path != kAndroidLog) story.violation(format("descriptor %d is left open: ", fd) + path);
    }
}

// When the modem is powered on, this boot's own descriptors are open and no others.
void check_at_boot(const RunStage& stage, const Scenario& scenario, Story& story) {
    std::map<std::string, int> count;
    for (const auto& [fd, path] : stage.descriptors()) {
        const bool own = path == kAndroidLog || path == "/dev/boot" || path.find("/dev/block/") == 0 ||
                         path.find("/mnt/vendor/efs/") == 0 || path == scenario.nv_path();
        if (!own || ++count[path] > 1)
            story.violation(format("descriptor %d is open at power-on: ", fd) + path);
    }
}

void print_summary(const Phone& phone, const Story& story, const Outcome& outcome) {
    printf("\nThe run ended with \"%s\" after %.3f s of the phone's time.\n", outcome.end.c_str(),
           static_cast<double>(outcome.lasted) / kSecond);
    printf("\nTransfers\n");
    for (const std::string& line : story.transfer_summary()) printf("  %s\n", line.c_str());
    printf("\nFiles\n");
    for (const std::string& line : file_summary(phone)) printf("  %s\n", line.c_str());
    if (!story.crash_sentence.empty())
        printf("\nThe crash, as the kernel was told%s\n", story.crash_sentence.c_str());
    const bool held = story.violations().empty();
    printf("\n%s\n", held ? "held: everything that was to be seen was seen" : "did not hold:");
    for (const std::string& violation : story.violations()) printf("  %s\n", violation.c_str());
}

}  // namespace

std::vector<std::string> run_scenario(const Scenario& scenario, const RunOptions& options) {
    enter_namespaces();
    Phone phone(scenario, options.root, options.keep);
    phone.build(options.daemon);

    const Time start = parse_start(scenario.start);
    Story story(options.story ? stdout : nullptr, start);
    Gate gate(scenario, phone, story,
              {start, options.real_time, std::chrono::seconds(options.timeout)});
    Driver driver(scenario, phone.partition(), gate, story);
    Timeline timeline(scenario, phone, gate, driver, story, start);
    gate.connect(driver);

    gate.on_wait = [&] { timeline.waits(); };
    gate.on_upload = [&] { return timeline.upload(); };
    gate.on_sleep = [&](Time span) {
        if (span == kSecond) check_between_passes(gate, story);
    };
    story.on_fact = [&](const std::string& kind, const std::string& text) {
        timeline.fact(kind, text);
        if (text == "POWER_ON") check_at_boot(gate, scenario, story);
        // With the real clock the wait itself isn't seen, only what is said before it.
        const bool waits = matches("*: Wait event from modem *", text) ||
                           matches("*: unknown Modem status", text);
        if (options.real_time && waits) timeline.waits();
    };

    if (!scenario.about.empty()) story.tell("phone", "", scenario.about);
    gate.start_daemon();
    timeline.begin();
    Outcome outcome;
    outcome.end = gate.serve();
    outcome.lasted = gate.now() - start;
    if (!timeline.finished()) story.violation("not everything in the timeline has happened");
    check_expectations(scenario, phone, driver, outcome, story);
    check_always(phone, story);
    if (options.summary) print_summary(phone, story, outcome);
    if (!options.trace.empty()) story.write_trace(options.trace);
    return story.violations();
}

}  // namespace rvd::lab

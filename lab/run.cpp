#include "lab/run.h"

#include <stdio.h>
#include <time.h>

#include <algorithm>
#include <map>
#include <memory>

#include "lab/checks.h"
#include "lab/driver.h"
#include "lab/gate.h"
#include "lab/notebook.h"
#include "lab/phone.h"
#include "lab/relay_stage.h"
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
        const bool own = path == kAndroidLog || path == "/dev/boot" ||
                         path.find("/dev/block/") == 0 || path.find("/mnt/vendor/efs/") == 0 ||
                         path == scenario.nv_path();
        if (!own || ++count[path] > 1)
            story.violation(format("descriptor %d is open at power-on: ", fd) + path);
    }
}

void print_summary(const Phone& phone, const Story& story, const Outcome& outcome) {
    printf("\nThe run ended with \"%s\" after %.3f s of the phone's time.\n", outcome.end.c_str(),
           static_cast<double>(outcome.lasted) / kSecond);
    printf("\nTransfers\n");
    for (const std::string& line : story.transfer_summary())
        printf("  %s\n", line.c_str());
    printf("\nFiles\n");
    for (const std::string& line : file_summary(phone))
        printf("  %s\n", line.c_str());
    if (!story.crash_sentence.empty())
        printf("\nThe crash, as the kernel was told%s\n", story.crash_sentence.c_str());
    const bool held = story.violations().empty();
    printf("\n%s\n", held ? "held: everything that was to be seen was seen" : "did not hold:");
    for (const std::string& violation : story.violations())
        printf("  %s\n", violation.c_str());
}

Notebook story_so_far(const Story& story) {
    Notebook notebook;
    notebook.crash_sentence = story.crash_sentence;
    notebook.log = story.log();
    notebook.requests = story.requests();
    notebook.violations = story.violations();
    return notebook;
}

// What a scenario can expect of a real kernel: no times to the letter, and none of the requests
// that go to the kernel itself. What those are to achieve is checked where it shows.
Scenario on_real_kernel(Scenario scenario) {
    Expectations& expect = scenario.expect;
    expect.lasts.reset();
    expect.story.clear();
    expect.whole_story = false;
    const auto to_kernel = [](const std::string& request) {
        return matches("prctl *", request) || matches("setuid *", request) ||
               matches("capset *", request) || request == "sync";
    };
    auto& requests = expect.requests;
    requests.erase(std::remove_if(requests.begin(), requests.end(), to_kernel), requests.end());
    return scenario;
}

std::unique_ptr<RunStage> make_stage(const Scenario& scenario, const RunOptions& options,
                                     const Phone& phone, Story& story, Time start, Time now) {
    const std::chrono::seconds patience(options.timeout);
    if (options.relay)
        return std::make_unique<RelayStage>(scenario, phone, story, start, now, patience);
    return std::make_unique<Gate>(scenario, phone, story,
                                  Gate::Setup{start, options.real_time, patience});
}

}  // namespace

std::vector<std::string> run_scenario(const Scenario& wanted, const RunOptions& options) {
    const Scenario scenario = options.relay ? on_real_kernel(wanted) : wanted;
    enter_namespaces();
    Phone phone(scenario, options.root, options.keep);
    Notebook before;
    const bool resumed = options.relay && before.take(options.notebook);
    if (resumed) {
        phone.resume(options.daemon);
    } else {
        phone.build(options.daemon);
    }

    const Time start = resumed ? before.start : parse_start(scenario.start);
    Story story(options.story ? stdout : nullptr, start);
    if (resumed) story.recall(before.log, before.requests, before.violations);
    const auto stage =
            make_stage(scenario, options, phone, story, start, resumed ? before.now : start);
    Driver driver(scenario, phone.partition(), *stage, story);
    Timeline timeline(scenario, phone, *stage, driver, story, start);
    stage->connect(driver);

    stage->on_wait = [&] { timeline.waits(); };
    stage->on_upload = [&] { return timeline.upload(); };
    stage->on_sleep = [&](Time span) {
        if (span == kSecond) check_between_passes(*stage, story);
    };
    stage->on_down = [&](bool panics) {
        Notebook notebook = story_so_far(story);
        notebook.start = start;
        notebook.now = stage->now();
        notebook.position = timeline.position();
        notebook.panicked = panics;
        notebook.times = driver.times();
        notebook.store(options.notebook);
    };
    story.on_fact = [&](const std::string& kind, const std::string& text) {
        timeline.fact(kind, text);
        if (text == "POWER_ON") check_at_boot(*stage, scenario, story);
        // With the gate's real clock the wait itself isn't seen, only what is said before it.
        const bool waits = matches("*: Wait event from modem *", text) ||
                           matches("*: unknown Modem status", text);
        if (options.real_time && waits) timeline.waits();
    };

    if (!scenario.about.empty() && !resumed) story.tell("phone", "", scenario.about);
    Outcome outcome;
    if (resumed) {
        story.crash_sentence = before.crash_sentence;
        story.tell("phone", "", "is up again");
        driver.recall(before.times);
        timeline.resume(before.position, before.panicked);
    }
    if (resumed && before.panicked && timeline.position() == before.position) {
        outcome.end = "upload";  // nothing was to come after it
    } else {
        stage->start_daemon();
        if (!resumed) timeline.begin();
        outcome.end = stage->serve();
    }
    if (outcome.end == "reboot") throw Reboots();
    outcome.lasted = stage->now() - start;
    if (!timeline.finished()) story.violation("not everything in the timeline has happened");
    check_expectations(scenario, phone, driver, outcome, story);
    check_always(phone, story);
    if (options.summary) print_summary(phone, story, outcome);
    if (!options.trace.empty()) story.write_trace(options.trace);
    if (!options.log.empty()) {
        std::string lines;
        for (const std::string& line : story.log())
            lines += line + "\n";
        write_file(options.log, lines);
    }
    return story.violations();
}

}  // namespace rvd::lab

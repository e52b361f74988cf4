#include "lab/run/run.h"

#include <stdio.h>

#include <algorithm>
#include <map>
#include <memory>

#include "lab/device/device_stage.h"
#include "lab/device/notebook.h"
#include "lab/gate/gate.h"
#include "lab/modem/driver.h"
#include "lab/phone/phone.h"
#include "lab/run/checks.h"
#include "lab/run/timeline.h"

namespace rvd::lab {

namespace {

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

void print_summary(const Phone& phone, const Story& story, const Conduct& conduct) {
    printf("\nThe run ended with \"%s\" after %.3f s of the phone's time.\n", conduct.end.c_str(),
           static_cast<double>(conduct.lasted) / kSecond);
    printf("\nTransfers\n");
    for (const std::string& line : story.transfer_summary())
        printf("  %s\n", line.c_str());
    printf("\nFiles\n");
    for (const std::string& line : file_summary(phone))
        printf("  %s\n", line.c_str());
    if (!story.crash_sentence.empty())
        printf("\nThe crash, as the kernel was told%s\n", story.crash_sentence.c_str());
    printf("\n");
}

// What a scenario puts in the daemon's way must have come about, or the run has shown nothing. In
// the fault campaign the one fault may keep the modem's deviations from coming.
void hear_line(const Scenario& scenario, const std::string& line) {
    for (const Fault& fault : scenario.faults)
        fault.turn.hear(line);
    for (const Answer& answer : scenario.driver.answers)
        answer.turn.hear(line);
    for (const Quirk& quirk : scenario.loader)
        quirk.turn.hear(line);
}

void check_obstacles(const Scenario& scenario, bool faults_alone, Story& story) {
    for (const Fault& fault : scenario.faults) {
        if (!fault.turn.came)
            story.violation("the fault in " + fault.call + " " + fault.path + " never triggered");
    }
    if (faults_alone) return;
    for (const Answer& answer : scenario.driver.answers) {
        if (!answer.turn.came)
            story.violation("the answer to " + answer.request + " was never given");
    }
    for (const Quirk& quirk : scenario.loader) {
        if (!quirk.turn.came)
            story.violation("the loader's deviation at " + quirk.at + " never triggered");
    }
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
Scenario on_real_kernel(Scenario scenario, bool is_phone) {
    if (!is_phone) scenario.start = time(nullptr) * kSecond;
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
    if (options.device)
        return std::make_unique<DeviceStage>(
                scenario, phone, story,
                DeviceStage::Setup{start, now, patience, !options.notebook.empty(),
                                   options.prepare});
    return std::make_unique<Gate>(
            scenario, phone, story,
            Gate::Setup{start, options.real_time, patience, options.learn, options.jitter});
}

}  // namespace

Result run_scenario(const Scenario& wanted, const RunOptions& options) {
    Scenario scenario = options.device ? on_real_kernel(wanted, !options.notebook.empty()) : wanted;
    enter_namespaces();
    Phone phone(scenario, options.root, options.keep);
    Notebook notes;
    const bool resumed = !options.notebook.empty() && notes.take(options.notebook);
    if (resumed) {
        phone.resume(options.daemon);
    } else {
        phone.build(options.daemon);
    }

    const Time start = resumed ? notes.start : scenario.start;
    Story story(options.story ? stdout : nullptr, start);
    if (resumed) story.recall(notes.log, notes.requests, notes.violations);
    const auto stage =
            make_stage(scenario, options, phone, story, start, resumed ? notes.now : start);
    Driver driver(scenario, phone.partition(), *stage, story);
    Timeline timeline(scenario, phone, *stage, driver, story, start);
    stage->connect(driver);

    Conduct conduct;
    Files before;
    stage->on_wait = [&] {
        conduct.open = open_paths(*stage);
        if (options.on_wait) {
            Play play{scenario, phone, *stage, driver, story, timeline.position()};
            options.on_wait(play);
        }
        timeline.waits();
    };
    if (options.learn) {
        stage->on_call = [&](const std::string& call, int time, const std::string& path) {
            const std::string place = story.log().empty() ? "" : story.log().back();
            conduct.calls.push_back({call, time, path, place});
        };
    }
    if (options.clean != nullptr)
        stage->on_fault = [&] { before = closed_files(phone, open_paths(*stage)); };
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
        if (kind == "line") hear_line(scenario, text);
        timeline.fact(kind, text);
        if (text == "POWER_ON") check_at_boot(*stage, scenario, story);
        // With the gate's real clock the wait itself isn't seen, only what is said before it.
        const bool waits = matches("*: Wait event from modem *", text) ||
                           matches("*: unknown Modem status", text);
        if (options.real_time && waits) timeline.waits();
    };

    if (!scenario.about.empty() && !resumed) story.tell("phone", "", scenario.about);
    if (resumed) {
        story.crash_sentence = notes.crash_sentence;
        story.tell("phone", "", "is up again");
        driver.recall(notes.times);
        timeline.resume(notes.position, notes.panicked);
    }
    if (resumed && notes.panicked && timeline.position() == notes.position) {
        conduct.end = "upload";  // nothing was to come after it
    } else {
        stage->start_daemon();
        if (!resumed) timeline.begin();
        conduct.end = stage->serve();
    }
    if (conduct.end == "reboot") throw Reboots();
    conduct.lasted = stage->now() - start;
    if (!timeline.finished()) story.violation("not everything in the timeline has happened");
    // Where the run is conducted from outside, chance decides what comes.
    if (!resumed && !options.on_wait) check_obstacles(scenario, options.clean != nullptr, story);
    conduct.files = closed_files(phone, {});
    if (options.clean != nullptr) {
        check_collected(scenario, phone, driver, story);
        for (const std::string& difference :
             differences(*options.clean, conduct, before, story.log()))
            story.violation(difference);
    } else {
        check_expectations(scenario, phone, driver, conduct, story);
    }
    check_always(phone, story);
    if (options.story && options.summary) print_summary(phone, story, conduct);
    if (options.trace) options.trace.write(story.trace());
    if (options.log) {
        std::string lines;
        for (const std::string& line : story.log())
            lines += line + "\n";
        options.log.write(lines);
    }
    return {story.violations(), conduct};
}

}  // namespace rvd::lab

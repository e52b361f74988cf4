#include "lab/run/run.h"

#include <fmt/format.h>
#include <stdio.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>

#include "lab/device/device_stage.h"
#include "lab/device/notebook.h"
#include "lab/gate/gate.h"
#include "lab/phone/phone.h"
#include "lab/run/checks.h"
#include "lab/run/timeline.h"

namespace fs = std::filesystem;

namespace rvd::lab {

namespace {

constexpr uint64_t kLeastRoom = 1 << 20;  // bytes left on a kept root's disk

// Between two passes only the logs are open. A sleep with a node open is one within a pass.
void check_between_passes(const RunStage& stage, Story& story) {
    const auto open = stage.descriptors();
    for (const auto& [fd, path] : open) {
        if (path == "/dev/boot" || path == "/dev/dump") return;
    }
    for (const auto& [fd, path] : open) {
        if (path != kAndroidLog)
            story.violation(fmt::format("descriptor {} is left open: ", fd) + path);
    }
}

// At power-on only the descriptors of this boot are open, each once.
void check_at_boot(const RunStage& stage, const Scenario& scenario, Story& story) {
    std::map<std::string, int> count;
    for (const auto& [fd, path] : stage.descriptors()) {
        const bool own = path == kAndroidLog || path == "/dev/boot" ||
                         path.find("/dev/block/") == 0 || path.find("/mnt/vendor/efs/") == 0 ||
                         path == scenario.nv_path();
        if (!own || ++count[path] > 1)
            story.violation(fmt::format("descriptor {} is open at power-on: ", fd) + path);
    }
}

void print_summary(const Phone& phone, const Story& story, const Conduct& conduct, bool brief) {
    fmt::print("\nThe run ended with \"{}\" after {:.3f} s of the phone's time.\n", conduct.end,
               seconds(conduct.lasted));
    const std::vector<std::string> files = file_summary(phone);
    if (brief) {
        fmt::print("It saved {} files; without --brief they are listed.\n", files.size() - 1);
    } else {
        fmt::print("\n{}\n\n{}\n", fmt::join(story.transfer_summary(), "\n"),
                   fmt::join(files, "\n"));
    }
    const std::string& reason = story.crash_sentence;
    if (!reason.empty())
        fmt::print("\nThe reason of the kernel panic\n  {}\n",
                   reason.substr(std::min(reason.find_first_not_of(": "), reason.size())));
    fmt::print("\n");
}

void hear_line(const Scenario& scenario, const std::string& line) {
    for (const Fault& fault : scenario.faults)
        fault.turn.hear(line);
    for (const Answer& answer : scenario.driver.answers)
        answer.turn.hear(line);
    for (const Quirk& quirk : scenario.loader)
        quirk.turn.hear(line);
}

// On a real kernel times are not exact, and requests to the kernel itself are not seen.
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
        return make_device_stage(
                scenario, phone, story,
                {start, now, patience, !options.notebook.empty(), options.prepare});
    return make_gate(scenario, phone, story,
                     {start, options.real_time, patience, options.learn, options.jitter});
}

// One run; play() is its order.
class Run {
  public:
    Run(const Scenario& scenario, const RunOptions& options)
        : options_(options),
          scenario_(options.device ? on_real_kernel(scenario, !options.notebook.empty())
                                   : scenario),
          phone_(scenario_, options.root, options.keep),
          resumed_(prepare_phone()),
          start_(resumed_ ? notes_.start : scenario_.start),
          story_(options.story ? stdout : nullptr, options.look, start_),
          stage_(make_stage(scenario_, options, phone_, story_, start_,
                            resumed_ ? notes_.now : start_)),
          timeline_(scenario_, phone_, *stage_, stage_->modem(), story_, start_) {}

    Result play() {
        listen();
        if (options_.log) options_.log.write("");
        if (resumed_) {
            resume();
        } else {
            begin();
        }
        if (conduct_.end.empty()) conduct_.end = stage_->serve();
        if (conduct_.end == "reboot") throw Reboots();
        conduct_.lasted = stage_->now() - start_;
        conduct_.modem = stage_->modem().state();
        conduct_.requests = story_.requests();
        conduct_.files = closed_files(phone_, {});
        judge();
        if (!story_.violations().empty()) check_room();
        write_results();
        return {story_.violations(), conduct_};
    }

  private:
    // Returns whether the run continues after the machine went down.
    bool prepare_phone() {
        const bool resumed = !options_.notebook.empty() && notes_.take(options_.notebook);
        fs::path binary = options_.daemon;
        if (!scenario_.program.empty()) binary.replace_filename(scenario_.program);
        if (resumed) {
            phone_.resume(binary);
        } else {
            phone_.build(binary);
        }
        return resumed;
    }

    void listen() {
        stage_->on_wait = [this] { daemon_waits(); };
        stage_->on_sleep = [this](Time span) {
            if (span == kSecond) check_between_passes(*stage_, story_);
        };
        stage_->on_upload = [this] { return timeline_.upload(); };
        stage_->on_down = [this](bool panics) { write_notes(panics); };
        story_.on_fact = [this](const std::string& kind, const std::string& text) {
            hear(kind, text);
        };
        if (options_.learn) {
            stage_->on_call = [this](const std::string& call, int time, const std::string& path,
                                     int fd) {
                const std::string place = story_.log().empty() ? "" : story_.log().back();
                if (options_.conductor) options_.conductor->call(call, path, fd);
                conduct_.calls.push_back({call, time, path, place});
            };
        }
        if (!options_.conductor) return;
        stage_->on_fault = [this](const Fault& fault) { options_.conductor->fault(fault); };
        options_.conductor->begin(play_);
    }

    void begin() {
        if (!scenario_.about.empty()) story_.begin(scenario_.about);
        stage_->start_daemon();
        timeline_.begin();
    }

    void resume() {
        story_.recall(notes_.log, notes_.requests, notes_.violations);
        for (const std::string& line : notes_.log)
            if (options_.log) options_.log.append(line + "\n");
        story_.crash_sentence = notes_.crash_sentence;
        story_.tell("phone", "", "is up again");
        for (size_t i = 0; i < notes_.answers.size(); i++)
            scenario_.driver.answers[i].turn.seen = notes_.answers[i];
        timeline_.resume(notes_.position, notes_.panicked);
        const bool last = notes_.panicked && timeline_.position() == notes_.position;
        if (last) {
            conduct_.end = "upload";  // nothing follows the panic
        } else {
            stage_->start_daemon();
        }
    }

    void daemon_waits() {
        conduct_.open = open_paths(*stage_);
        if (options_.conductor) options_.conductor->waits();
        timeline_.waits();
    }

    void hear(const std::string& kind, const std::string& text) {
        if (kind == "line") hear_line(scenario_, text);
        if (kind == "line" && options_.log) options_.log.append(text + "\n");
        if (kind == "line" && options_.conductor) options_.conductor->line(text);
        timeline_.fact(kind, text);
        if (text == "POWER_ON" && scenario_.program.empty())
            check_at_boot(*stage_, scenario_, story_);
        // With the real clock the gate does not see the wait, only the lines before it.
        const bool waits = matches("*: Wait event from modem *", text) ||
                           matches("*: unknown Modem status", text);
        if (options_.real_time && waits) timeline_.waits();
    }

    void write_notes(bool panics) {
        Notebook notes;
        notes.start = start_;
        notes.now = stage_->now();
        notes.position = timeline_.position();
        notes.panicked = panics;
        notes.crash_sentence = story_.crash_sentence;
        notes.log = story_.log();
        notes.requests = story_.requests();
        notes.violations = story_.violations();
        for (const Answer& answer : scenario_.driver.answers)
            notes.answers.push_back(answer.turn.seen);
        notes.store(options_.notebook);
    }

    void judge() {
        if (!timeline_.finished()) story_.violation("the run ended before the timeline did");
        if (options_.conductor) {
            options_.conductor->judge(conduct_);
        } else {
            if (!resumed_) check_obstacles(scenario_, false, story_);
            check_expectations(scenario_, phone_, conduct_, story_);
        }
        check_always(phone_, story_);
    }

    // A full disk outside the phone is no failure of the daemon.
    void check_room() const {
        struct statvfs disk {};
        if (!options_.keep || statvfs(options_.root.c_str(), &disk) != 0) return;
        if (disk.f_bavail * disk.f_frsize < kLeastRoom)
            throw Unable(options_.root + ": the disk is full; the phone's files need more room");
    }

    void write_results() const {
        if (options_.story && options_.summary)
            print_summary(phone_, story_, conduct_, options_.look.brief);
        if (options_.trace) options_.trace.write(story_.trace());
        if (options_.picture) options_.picture.write(story_.picture(scenario_.name));
    }

    const RunOptions& options_;
    Scenario scenario_;
    Phone phone_;
    Notebook notes_;
    const bool resumed_;
    const Time start_;
    Story story_;
    const std::unique_ptr<RunStage> stage_;
    Timeline timeline_;
    Conduct conduct_;
    Play play_{scenario_, phone_, *stage_, stage_->modem(), story_, timeline_};
};

}  // namespace

Result run_scenario(const Scenario& scenario, const RunOptions& options) {
    return Run(scenario, options).play();
}

}  // namespace rvd::lab

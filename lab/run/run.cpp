#include "lab/run/run.h"

#include <fmt/format.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <set>

#include "lab/device/notebook.h"
#include "lab/phone/phone.h"
#include "lab/run/checks.h"

namespace fs = std::filesystem;

namespace rvd::lab {

namespace {

constexpr uint64_t kLeastRoom = 1 << 20;  // bytes left on a kept root's disk

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

// A line for each file in the log directory with its size.
std::set<std::string> saved_files(const fs::path& directory) {
    std::set<std::string> lines;
    std::error_code none;
    for (const auto& entry : fs::recursive_directory_iterator(directory, none)) {
        if (entry.is_regular_file())
            lines.insert(fmt::format("  {:<50} {:>12}\n",
                                     entry.path().lexically_relative(directory).string(),
                                     human_size(entry.file_size())));
    }
    return lines;
}

void print_summary(const Phone& phone, const Story& story, const Conduct& conduct, bool brief) {
    fmt::print("\nThe run ended with \"{}\" after {:.3f} s of the phone's time.\n", conduct.end,
               seconds(conduct.lasted));
    const auto files = saved_files(phone.path(kLogDirectory));
    if (brief) {
        fmt::print("It saved {} files; without --brief they are listed.\n", files.size());
    } else {
        fmt::print("\n{}\nFiles in {}\n{}", story.transfer_summary(), kLogDirectory,
                   fmt::join(files, ""));
    }
    const std::string& reason = story.crash_sentence;
    if (!reason.empty())
        fmt::print("\nThe reason of the kernel panic\n  {}\n",
                   reason.substr(std::min(reason.find_first_not_of(": "), reason.size())));
    fmt::print("\n");
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
          stage_(make_stage()) {}

    Result play() {
        listen();
        options_.conductor->begin(play_);
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
        write_results();
        return {story_.violations(), conduct_};
    }

  private:
    // Returns whether the run continues after the machine went down.
    bool prepare_phone() {
        const bool resumed = !options_.notebook.empty() && notes_.take(options_.notebook);
        fs::path binary = options_.daemon;
        if (!scenario_.program.empty()) binary.replace_filename(scenario_.program);
        phone_.build(binary, resumed);
        return resumed;
    }

    std::unique_ptr<RunStage> make_stage() {
        if (!options_.device) return make_gate(scenario_, phone_, story_, options_, start_);
        return make_device_stage(scenario_, phone_, story_, options_, start_,
                                 resumed_ ? notes_.now : start_);
    }

    void listen() {
        stage_->on_wait = [this] {
            conduct_.open = open_paths(*stage_);
            options_.conductor->waits();
            timeline_.waits();
        };
        stage_->on_sleep = [this](Time span) {
            if (span == kSecond) check_between_passes(play_);
        };
        stage_->on_upload = [this] { return timeline_.upload(); };
        stage_->on_down = [this](bool panics) { write_notes(panics); };
        stage_->on_fault = [this](const Fault& fault) { options_.conductor->fault(fault); };
        story_.on_line = [this](const std::string& text) { hear_line(text); };
        story_.on_request = [this](const std::string& text) { hear_request(text); };
        if (!options_.learn) return;
        stage_->on_call = [this](const std::string& call, int time, const std::string& path,
                                 int fd) {
            const std::string place = story_.log().empty() ? "" : story_.log().back();
            options_.conductor->call(call, path, fd);
            conduct_.calls.push_back({call, time, path, place});
        };
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
        // Which obstacles occurred before is not known.
        for_each_turn(scenario_, [](const Turn& turn) { turn.came = true; });
        timeline_.resume(notes_.position, notes_.panicked);
        const bool last = notes_.panicked && timeline_.position() == notes_.position;
        if (last) {
            conduct_.end = "upload";  // nothing follows the panic
        } else {
            stage_->start_daemon();
        }
    }

    void hear_line(const std::string& text) {
        for_each_turn(scenario_, [&](const Turn& turn) { turn.hear(text); });
        if (options_.log) options_.log.append(text + "\n");
        options_.conductor->line(text);
        timeline_.line(text);
        // With the real clock the gate does not see the wait, only the lines before it.
        const bool waits = matches("*: Wait event from modem *", text) ||
                           matches("*: unknown Modem status", text);
        if (options_.real_time && waits) timeline_.waits();
    }

    void hear_request(const std::string& text) {
        timeline_.request(text);
        if (text == "POWER_ON" && scenario_.program.empty()) check_at_power_on(play_);
    }

    void write_notes(bool panics) {
        notes_ = {start_,
                  stage_->now(),
                  timeline_.position(),
                  panics,
                  story_.crash_sentence,
                  story_.log(),
                  story_.requests(),
                  story_.violations(),
                  {}};
        for (const Answer& answer : scenario_.driver.answers)
            notes_.answers.push_back(answer.turn.seen);
        notes_.store(options_.notebook);
    }

    void judge() {
        if (!timeline_.finished()) story_.violation("the run ended before the timeline did");
        options_.conductor->judge(conduct_);
        check_sanitizers(play_);
        if (!story_.violations().empty()) check_room();
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
    Play play_{scenario_, phone_, *stage_, stage_->modem(), story_, timeline_};
    Timeline timeline_{play_, start_};
    Conduct conduct_;
};

}  // namespace

void Conductor::judge(Conduct& conduct) {
    check_obstacles(*play_);
    check_expectations(*play_, conduct);
}

Result run_scenario(const Scenario& scenario, const RunOptions& options) {
    return Run(scenario, options).play();
}

}  // namespace rvd::lab

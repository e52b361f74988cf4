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

// On a real kernel times are not exact, and system calls are not intercepted.
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

// One line for each file: its name and size.
std::set<std::string> saved_files(const Phone& phone) {
    std::set<std::string> lines;
    const fs::path directory = phone.path(kLogDirectory);
    for (const auto& file : phone.files(kLogDirectory))
        lines.insert(fmt::format("  {:<50} {:>12}\n",
                                 file.path().lexically_relative(directory).string(),
                                 human_size(file.file_size())));
    return lines;
}

void print_summary(const Phone& phone, const Story& story, const RunRecord& record, bool brief) {
    fmt::print("\nThe run ended with \"{}\" after {:.3f} s of the phone's time.\n", record.end,
               seconds(record.lasted));
    const auto files = saved_files(phone);
    if (brief) {
        fmt::print("It saved {} files; without --brief they are listed.\n", files.size());
    } else {
        fmt::print("\n{}\nFiles in {}\n{}", story.transfer_summary(), kLogDirectory,
                   fmt::join(files, ""));
    }
    const std::string& reason = story.panic_reason;
    if (!reason.empty())
        fmt::print("\nThe reason of the kernel panic\n  {}\n",
                   reason.substr(std::min(reason.find_first_not_of(": "), reason.size())));
    fmt::print("\n");
}

class Run {
  public:
    Run(const Scenario& scenario, const RunOptions& options)
        : options_(options),
          scenario_(options.device ? on_real_kernel(scenario, !options.notebook.empty())
                                   : scenario),
          phone_(scenario_, options.root, options.keep),
          resumed_(prepare_phone()),
          start_(resumed_ ? state_.start : scenario_.start),
          story_(options.story ? stdout : nullptr, options.style, start_),
          backend_(make_backend()) {}

    Result execute() {
        install_callbacks();
        options_.controller->begin(context_);
        if (options_.log) options_.log.write("");
        if (resumed_) {
            resume();
        } else {
            begin();
        }
        if (record_.end.empty()) record_.end = backend_->run();
        if (record_.end == "reboot") throw Reboots();
        record_.lasted = backend_->now() - start_;
        record_.modem = backend_->modem().state();
        record_.requests = story_.requests();
        record_.files = phone_.closed_files({});
        check();
        write_results();
        return {story_.violations(), record_};
    }

  private:
    // Returns whether this continues a run from before a reboot of the machine.
    bool prepare_phone() {
        const bool resumed = !options_.notebook.empty() && state_.load(options_.notebook);
        fs::path binary = options_.daemon;
        if (!scenario_.program.empty()) binary.replace_filename(scenario_.program);
        phone_.build(binary, resumed);
        return resumed;
    }

    std::unique_ptr<RunBackend> make_backend() {
        if (!options_.device) return make_gate(scenario_, phone_, story_, options_, start_);
        return make_device_backend(scenario_, phone_, story_, options_, start_,
                                   resumed_ ? state_.now : start_);
    }

    void install_callbacks() {
        backend_->on_wait = [this] {
            record_.open = backend_->open_paths();
            options_.controller->on_wait();
            timeline_.on_wait();
        };
        backend_->on_sleep = [this](Time span) {
            if (span == kSecond) check_between_passes(context_);
        };
        backend_->on_upload = [this] { return timeline_.on_upload(); };
        backend_->on_machine_down = [this](bool panics) { save_state(panics); };
        backend_->on_fault = [this](const Fault& fault) { options_.controller->on_fault(fault); };
        story_.on_line = [this](const std::string& text) { handle_line(text); };
        story_.on_request = [this](const std::string& text) { handle_request(text); };
        if (!options_.record_calls) return;
        backend_->on_call = [this](const std::string& call, int nth, const std::string& path,
                                   int fd) {
            const std::string last_line = story_.log().empty() ? "" : story_.log().back();
            options_.controller->on_call(call, path, fd);
            record_.calls.push_back({call, nth, path, last_line});
        };
    }

    void begin() {
        if (!scenario_.about.empty()) story_.begin(scenario_.about);
        backend_->start_daemon();
        timeline_.begin();
    }

    void resume() {
        story_.restore(state_.log, state_.requests, state_.violations);
        if (options_.log) options_.log.append(fmt::format("{}\n", fmt::join(state_.log, "\n")));
        story_.panic_reason = state_.panic_reason;
        story_.add_message("phone", "", "is up again");
        for (size_t i = 0; i < state_.answers.size(); i++)
            scenario_.driver.answers[i].trigger.seen = state_.answers[i];
        // The notebook does not keep which of them fired before the reboot.
        for_each_trigger(scenario_, [](const Trigger& trigger) { trigger.fired = true; });
        timeline_.resume(state_.position, state_.panicked);
        const bool last = state_.panicked && timeline_.position() == state_.position;
        if (last) {
            record_.end = "upload";  // nothing follows the panic
        } else {
            backend_->start_daemon();
        }
    }

    void handle_line(const std::string& text) {
        for_each_trigger(scenario_, [&](const Trigger& trigger) { trigger.note_line(text); });
        if (options_.log) options_.log.append(text + "\n");
        options_.controller->on_line(text);
        timeline_.on_line(text);
        // With the real clock poll() is not intercepted, so the wait is recognized by its line.
        const bool waits = matches("*: Wait event from modem *", text) ||
                           matches("*: unknown Modem status", text);
        if (options_.real_time && waits) timeline_.on_wait();
    }

    void handle_request(const std::string& text) {
        timeline_.on_request(text);
        if (text == "POWER_ON" && scenario_.program.empty()) check_at_power_on(context_);
    }

    void save_state(bool panics) {
        state_ = {
                start_,       backend_->now(),   timeline_.position(), panics, story_.panic_reason,
                story_.log(), story_.requests(), story_.violations(),  {}};
        for (const Answer& answer : scenario_.driver.answers)
            state_.answers.push_back(answer.trigger.seen);
        state_.save(options_.notebook);
    }

    void check() {
        if (!timeline_.finished()) story_.violation("the run ended before the timeline did");
        options_.controller->check(record_);
        check_sanitizers(context_);
        if (!story_.violations().empty()) check_room();
    }

    // A full disk of the host is no failure of the daemon.
    void check_room() const {
        struct statvfs disk {};
        if (!options_.keep || statvfs(options_.root.c_str(), &disk) != 0) return;
        if (disk.f_bavail * disk.f_frsize < kLeastRoom)
            throw Error(options_.root + ": the disk is full; the phone's files need more room");
    }

    void write_results() const {
        if (options_.story && options_.summary)
            print_summary(phone_, story_, record_, options_.style.brief);
        if (options_.trace) options_.trace.write(story_.trace());
        if (options_.picture) options_.picture.write(story_.picture(scenario_.name));
    }

    const RunOptions& options_;
    Scenario scenario_;
    Phone phone_;
    Notebook state_;
    const bool resumed_;
    const Time start_;
    Story story_;
    const std::unique_ptr<RunBackend> backend_;
    RunContext context_{scenario_, phone_, *backend_, backend_->modem(), story_, timeline_};
    Timeline timeline_{context_, start_};
    RunRecord record_;
};

}  // namespace

void RunController::check(RunRecord& record) {
    check_triggers(*run_);
    check_expectations(*run_, record);
}

Result run_scenario(const Scenario& scenario, const RunOptions& options) {
    return Run(scenario, options).execute();
}

}  // namespace rvd::lab

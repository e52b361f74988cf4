#include "lab/campaign/passes.h"

#include <fmt/format.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "lab/builtin.h"
#include "lab/campaign/faults.h"
#include "lab/modem/modem.h"
#include "lab/run/checks.h"

namespace fs = std::filesystem;

namespace rvd::lab {

namespace {

constexpr int kWarmUpPasses = 50;  // afterwards the daemon's memory must not grow
constexpr long kMemorySlackKiB = 512;
constexpr Time kQuirkLasts = 40 * kSecond;
constexpr int kSavingThreads = 3;  // most threads that save logs at the same time

// The storm's disk, the free space that a dump needs, and more than one pass writes.
constexpr int64_t kMega = 1 << 20;
constexpr int64_t kDisk = 1024 * kMega, kLeastFree = 500 * kMega, kWritten = 2 * kMega;

// The calls of which one may fail in a pass. The index is that of the scenario's fault.
const char* const kFaulty[] = {"open", "read", "write", "fsync", "statfs", "mmap", "ioctl", "poll"};

const char* const kQuirky[] = {"0xA00D", "0xAF00", "0xAD00", "info", "reason", "1.1", "2.2"};

// These signals are blocked, and end the soak after the current pass.
sigset_t interruptions() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&signals, signal);
    return signals;
}

bool interrupted() {
    const sigset_t signals = interruptions();
    const timespec now = {};
    return sigtimedwait(&signals, nullptr, &now) > 0;
}

class Passes : public RunController {
  public:
    Passes(int64_t seed, const std::string& shape, int count, SoakCounters& counters)
        : random_(static_cast<uint64_t>(seed)), shape_(shape), count_(count), counters_(counters) {}

    void begin(RunContext& run) override {
        RunController::begin(run);
        const sigset_t signals = interruptions();
        sigprocmask(SIG_BLOCK, &signals, nullptr);
    }

    void on_fault(const Fault&) override { disturb(); }

    void on_line(const std::string& text) override {
        counters_.dumps += matches("*: DUMP DATA saved", text);
        if (!fill_at_line_.empty() && matches(fill_at_line_, text)) fill_disk();
    }

    // The daemon waits for the modem: the pass is over unless the timeline continues it.
    void on_wait() override {
        auto& timeline = run_->scenario.timeline;
        const size_t position = run_->timeline.position();
        if (timeline.size() > position && timeline[position].waits) return;
        timeline.resize(position);
        check_descriptors();
        check_nv();
        check_files();
        check_process();
        run_->story.clear();
        counters_.passes++;
        const bool last = ++played_ == count_;
        if (last || interrupted() || !run_->story.violations().empty()) return stop();
        counters_.virtual_time = run_->backend.now() - run_->scenario.start;
        plan_pass();
    }

    void check(RunRecord& record) override { check_expectations(*run_, record); }

  private:
    void stop() {
        run_->scenario.expect.files.clear();  // each pass has checked and removed them
        run_->backend.stop("stop");
    }

    void check_descriptors() {
        const auto open = run_->backend.descriptors();
        for (const auto& [fd, path] : open) {
            if (path != kAndroidLog && path != "/dev/boot")
                violation("descriptor {} is left open: {}", fd, path);
        }
        if (open.size() > 2) violation("the boot node or the log is open twice");
    }

    void check_nv() {
        const std::string nv = read_file(run_->phone.path(run_->scenario.nv_path()));
        if (nv_.empty()) nv_ = nv;
        if (nv != nv_) violation("the NV file has changed");
    }

    // Saved files are prefixes of the modem's data, and complete in an undisturbed pass.
    void check_files() {
        // A liar's lengths decide which part of a frame is saved.
        if (shape_ != "liar") check_prefixes(*run_);
        if (has_crash_ && short_of_space_) check_refused();
        if (has_crash_ && !disturbed_ && !short_of_space_) {
            RunRecord pass;
            pass.end = run_->scenario.expect.end;
            check_expectations(*run_, pass);
            counters_.complete++;
        }
        remove_logs();
        fs::resize_file(run_->phone.path(kAndroidLog), 0);  // it is on tmpfs
    }

    // Their bytes stay in use on the storm's disk.
    void remove_logs() {
        int64_t bytes = 0;
        for (const auto& file : run_->phone.files(kLogDirectory))
            bytes += static_cast<int64_t>(file.file_size());
        counters_.bytes += bytes;
        other_data_ += bytes;
        fs::remove_all(run_->phone.path(kLogDirectory));
    }

    // Without space for a dump the daemon forces upload mode and saves nothing.
    void check_refused() {
        counters_.refused++;
        if (count_matches("TRIGGER_KERNEL_PANIC \"Not enough freespace\"*",
                          run_->story.requests()) == 0)
            violation("upload mode is not forced while the disk is full");
        for (const auto& file : run_->phone.files(kLogDirectory)) {
            const std::string path = run_->phone.inside(file.path());
            if (matches("*/cpcrash_*", path)) violation(path + " is saved while the disk is full");
        }
    }

    void check_process() {
        const pid_t daemon = run_->backend.daemon();
        const std::string status = read_file(fmt::format("/proc/{}/status", daemon));
        const auto number = [&](const char* name) {
            return strtol(status.c_str() + status.find(name) + strlen(name), nullptr, 10);
        };
        const long used = number("VmHWM:"), threads = number("Threads:");
        if (threads > 1 + kSavingThreads) violation("the daemon has {} threads", threads);
        if (daemon != daemon_) daemon_passes_ = 0;
        daemon_ = daemon;
        if (daemon_passes_++ <= kWarmUpPasses) warm_memory_ = used;
        if (used > warm_memory_ + kMemorySlackKiB)
            violation("the daemon needs {} KiB; after {} passes it needed {} KiB", used,
                      kWarmUpPasses, warm_memory_);
    }

    void disturb() {
        disturbed_ = true;
        counters_.disturbances++;
    }

    int below(int64_t limit) {
        return std::uniform_int_distribution<int>(0, static_cast<int>(limit) - 1)(random_);
    }
    bool once_in(int times) { return below(times) == 0; }
    template <class Things>
    auto& one_of(Things& things) {
        return things[static_cast<size_t>(below(static_cast<int64_t>(std::size(things))))];
    }

    void plan_pass() {
        has_crash_ = short_of_space_ = false;
        fill_at_line_.clear();
        const auto& quirks = run_->scenario.loader;
        disturbed_ = std::any_of(quirks.begin(), quirks.end(),
                                 [](const Quirk& quirk) { return !quirk.at.empty(); });
        if (shape_ == "mixed") plan_mixed();
        if (shape_ == "storm") plan_storm();
        if (shape_ == "flap") plan_flap();
        if (shape_ == "liar") plan_liar();
    }

    void plan_mixed() {
        plan_events();
        plan_fault();
        if (once_in(4)) plan_quirk();
    }

    void plan_events() {
        auto& timeline = run_->scenario.timeline;
        static const int states[] = {1, 2, 9, 3};
        Event event;
        event.waits = true;
        event.after = below(20'000) * kMillisecond;
        event.state = one_of(states);
        if (*event.state == 3) {  // ignored by the daemon: the next one ends the pass
            timeline.push_back(event);
            event.state = states[below(3)];
        }
        if (once_in(10)) event.set["vendor.rvd.first_xmit_done"] = std::to_string(below(2));
        has_crash_ = event.state == 2;
        if (once_in(200)) {
            event.state.reset();
            (once_in(2) ? event.restart : event.reboot) = true;
            has_crash_ = false;
        }
        timeline.push_back(event);
        if (!once_in(300)) return;
        Event killed;
        killed.line = once_in(2) ? "boot: Handshake" : "dump: Receive CP crash dump";
        killed.restart = disturbed_ = true;
        timeline.push_back(killed);
    }

    void plan_fault() {
        auto& faults = run_->scenario.faults;
        for (Fault& fault : faults)
            fault.trigger = {INT32_MAX};  // never
        if (once_in(2)) return;
        Fault& fault = one_of(faults);
        fault = make_fault(fault.call, 1 + below(fault.call == "ioctl" ? 30 : 200),
                           one_of(failures_of(fault.call)));
        if (!fault.cut) return;
        // Only files are read and written in part: a packet is transferred whole.
        fault.path = fault.call == "write" ? "/data/*" : "/dev/block/*";
        fault.trigger.nth = 1 + below(10);
    }

    void plan_quirk() {
        Quirk quirk;
        if (once_in(3)) quirk.word = below(1 << 16);
        quirk.silent = once_in(6);
        quirk.hang_up = once_in(6);
        quirk.twice = once_in(4);
        quirk.late = once_in(4) ? below(35'000) * kMillisecond : 0;
        misbehave(static_cast<size_t>(below(std::size(kQuirky))), quirk);
    }

    // The boot loader may keep a pointer to the quirk, so the element stays and an empty `at` ends
    // it.
    void misbehave(size_t index, const Quirk& quirk) {
        disturb();
        Quirk& active = run_->scenario.loader[index];
        active = quirk;
        active.trigger.count = 0;
        active.at = kQuirky[index];
        run_->backend.later(kQuirkLasts, [&active] { active.at.clear(); });
    }

    // A crash every few seconds on a disk that other data fills, too. It is emptied when it is
    // full. Some dumps run out of space midway.
    void plan_storm() {
        Scenario& scenario = run_->scenario;
        other_data_ += below(30) * kMega;
        if (other_data_ > kDisk) other_data_ = 0;
        scenario.disk = kDisk - other_data_;
        // Free space must not cross the limit within a pass.
        const int64_t room = run_->phone.disk_room();
        if (room >= kLeastFree && room < kLeastFree + kWritten) *scenario.disk -= kWritten;
        short_of_space_ = room < kLeastFree + kWritten;
        static const char* const moments[] = {"get_log_dump: name:vss *", "*: DUMP INFO saved",
                                              "_save_logs: save dmesg begin*"};
        if (once_in(4)) fill_at_line_ = one_of(moments);
        Event crash;
        crash.waits = has_crash_ = true;
        crash.after = below(5'000) * kMillisecond;
        crash.state = once_in(2) ? 2 : 9;
        scenario.timeline.push_back(crash);
    }

    void fill_disk() {
        fill_at_line_.clear();
        disturb();
        auto& disk = run_->scenario.disk;
        *disk -= run_->phone.disk_room() - below(8'000);
    }

    // The state changes faster than the daemon reads it; the last change ends the pass.
    void plan_flap() {
        Time after = 0;
        const int changes = 2 + below(20);
        for (int i = 0; i < changes; i++) {
            static const int states[] = {1, 2, 9, 3, 0, 4, 42};
            const int state = i + 1 < changes ? one_of(states) : states[below(3)];
            after += below(once_in(4) ? 3'000 : 3) * kMillisecond;
            run_->backend.later(after, [this, state] { run_->modem.change_state(state); });
            disturb();
        }
    }

    // Random words, numbers and lengths in half of the boot loader's packets.
    void plan_liar() {
        plan_events();
        for (size_t index = 0; index < std::size(kQuirky); index++) {
            if (once_in(2)) continue;
            Quirk quirk;
            quirk.trigger.nth = 1 + below(3);
            if (once_in(2)) quirk.word = below(1 << 16);
            if (once_in(2)) quirk.curr_frame = below(1 << (1 + below(30)));
            if (once_in(2)) quirk.len = below(1 << (1 + below(30)));
            if (once_in(4)) quirk.cut = below(64);
            if (once_in(4)) quirk.extra = below(4096);
            quirk.twice = once_in(8);
            misbehave(index, quirk);
        }
    }

    std::mt19937_64 random_;
    const std::string shape_;
    const int count_;
    int played_ = 0;
    SoakCounters& counters_;
    bool has_crash_ = false;  // in this pass
    bool disturbed_ = false;  // by something that may keep a dump from being saved
    bool short_of_space_ = false;
    std::string fill_at_line_;  // the log line that fills the disk
    int64_t other_data_ = 0;    // bytes in use on the storm's disk, logs of earlier passes included
    std::string nv_;
    pid_t daemon_ = -1;
    int daemon_passes_ = 0;  // since its start
    long warm_memory_ = 0;   // KiB
};

}  // namespace

Scenario soak_scenario(const std::string& shape) {
    const auto flows = parse_scenarios(kFlows, "flows.toml");
    Scenario scenario = *std::find_if(flows.begin(), flows.end(),
                                      [](const Scenario& flow) { return flow.name == "crash"; });
    scenario.name = "soak";
    scenario.timeline.clear();
    scenario.limit = kNever / 2;
    scenario.expect.requests.clear();
    scenario.expect.end = "stop";
    scenario.loader.resize(std::size(kQuirky));
    if (shape == "storm") scenario.disk = kDisk;
    if (shape != "mixed") return scenario;
    for (const char* call : kFaulty)
        scenario.faults.push_back(make_fault(call, INT32_MAX, "EIO"));
    return scenario;
}

std::shared_ptr<RunController> make_passes(int64_t seed, const std::string& shape, int count,
                                           SoakCounters& counters) {
    return std::make_shared<Passes>(seed, shape, count, counters);
}

}  // namespace rvd::lab

#include "lab/campaign/soak.h"

#include <fmt/core.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <new>
#include <nlohmann/json.hpp>
#include <random>

#include "lab/builtin.h"
#include "lab/campaign/faults.h"
#include "lab/campaign/progress.h"
#include "lab/run/checks.h"

namespace fs = std::filesystem;

namespace rvd::lab {

namespace {

constexpr char kLogs[] = "/data/vendor/log/rvd";
constexpr int kSettled = 50;       // passes after which a daemon needs no more memory
constexpr long kMoreMemory = 512;  // KiB
constexpr Time kQuirkLasts = 40 * kSecond;
constexpr int kPassesPerSecond = 2;  // at the least, of real time

// One of a kind may fail in a pass, by its place here.
const char* const kFaulty[] = {"open", "read", "write", "fsync", "statfs", "mmap", "ioctl", "poll"};

const char* const kQuirky[] = {"0xA00D", "0xAF00", "0xAD00", "info", "reason", "1.1", "2.2"};

// How far a soak is: for the lab's process, in the memory that its run shares with it.
struct Figures {
    std::atomic<int> passes{0}, whole{0};
};

class Soak : public Conductor {
  public:
    Soak(int64_t seed, int passes, Figures& figures)
        : random_(static_cast<uint64_t>(seed)), passes_(passes), figures_(figures) {}

    void begin(Play& play) override {
        play_ = &play;
        sigset_t held = interruptions();
        sigprocmask(SIG_BLOCK, &held, nullptr);
    }

    void fault(const Fault&) override { disturbed_ = true; }

    // The daemon waits for the modem: a pass has come to its rest.
    void waits() override {
        Play& play = *play_;
        auto& timeline = play.scenario.timeline;
        const size_t position = play.timeline.position();
        if (timeline.size() > position && timeline[position].waits) return;
        timeline.resize(position);
        check(play);
        play.story.forget();
        const bool last = ++figures_.passes == passes_;
        if (last || interrupted() || !play.story.violations().empty()) return stop(play);
        choose_events(timeline);
        choose_fault(play);
        choose_quirk(play);
    }

    void judge(Conduct& conduct) override {
        check_expectations(play_->scenario, play_->phone, conduct, play_->story);
    }

  private:
    // The signals of an interruption wait for the end of the pass.
    static sigset_t interruptions() {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP})
            sigaddset(&signals, signal);
        return signals;
    }
    static bool interrupted() {
        const sigset_t signals = interruptions();
        const timespec now = {};
        return sigtimedwait(&signals, nullptr, &now) > 0;
    }

    static void stop(Play& play) {
        play.scenario.expect.files.clear();  // each pass has taken them away
        play.stage.stop("stop");
    }

    int below(size_t limit) {
        return std::uniform_int_distribution<int>(0, static_cast<int>(limit) - 1)(random_);
    }
    bool once_in(size_t times) { return below(times) == 0; }

    void check(Play& play) {
        for (const auto& [fd, path] : play.stage.descriptors()) {
            if (path != kAndroidLog && path != "/dev/boot")
                play.story.violation(format("descriptor %d is left open: ", fd) + path);
        }
        if (play.stage.descriptors().size() > 2)
            play.story.violation("more is open than the boot node and the log");
        const std::string nv = read_file(play.phone.path(play.scenario.nv_path()));
        if (nv_.empty()) nv_ = nv;
        if (nv != nv_) play.story.violation("the NV file has changed");
        check_files(play);
        check_memory(play);
    }

    // What was collected is right as far as it goes, and whole where nothing was in the way.
    void check_files(Play& play) {
        check_collected(play.scenario, play.phone, play.story);
        if (crashed_ && !disturbed_) {
            Scenario whole = play.scenario;
            whole.expect.end.clear();
            check_expectations(whole, play.phone, Conduct(), play.story);
            figures_.whole++;
        }
        fs::remove_all(play.phone.path(kLogs));
    }

    void check_memory(Play& play) {
        const pid_t daemon = play.stage.daemon();
        const std::string status = read_file(format("/proc/%d/status", daemon));
        const long used = strtol(status.c_str() + status.find("VmHWM:") + 6, nullptr, 10);
        if (daemon != daemon_) age_ = 0;
        daemon_ = daemon;
        if (age_++ <= kSettled) settled_ = used;
        if (used > settled_ + kMoreMemory)
            play.story.violation(format("the daemon needs %ld KiB, after %d passes %ld KiB", used,
                                        kSettled, settled_));
    }

    void choose_events(std::vector<Event>& timeline) {
        static const int states[] = {1, 2, 9, 3};
        Event event;
        event.waits = true;
        event.after = below(20'000) * kMillisecond;
        event.state = states[below(4)];
        if (*event.state == 3) {  // nothing comes of it: the next one ends the pass
            timeline.push_back(event);
            event.state = states[below(3)];
        }
        if (once_in(10)) event.set["vendor.rvd.first_xmit_done"] = format("%d", below(2));
        crashed_ = event.state == 2;
        disturbed_ = false;
        if (once_in(200)) {
            event.state.reset();
            (once_in(2) ? event.restart : event.reboot) = true;
            crashed_ = false;
        }
        timeline.push_back(event);
        if (!once_in(300)) return;
        Event killed;
        killed.line = once_in(2) ? "boot: Handshake" : "dump: Receive CP crash dump";
        killed.restart = disturbed_ = true;
        timeline.push_back(killed);
    }

    void choose_fault(Play& play) {
        play.stage.recount_faults();
        for (Fault& fault : play.scenario.faults)
            fault.turn.nth = INT32_MAX;
        if (once_in(2)) return;
        Fault& fault = play.scenario.faults[static_cast<size_t>(below(std::size(kFaulty)))];
        const auto& ways = *ways_to_fail(fault.call);
        fault = make_fault(fault.call, 1 + below(fault.call == "ioctl" ? 30 : 200),
                           ways[static_cast<size_t>(below(ways.size()))]);
        if (!fault.cut) return;
        // Files alone come in parts: a packet is taken whole.
        fault.path = fault.call == "write" ? "/data/*" : "/dev/block/*";
        fault.turn.nth = 1 + below(10);
    }

    // The boot loader misbehaves for a while.
    void choose_quirk(Play& play) {
        Quirk& quirk = play.scenario.loader[0];
        disturbed_ = disturbed_ || !quirk.at.empty();
        if (!once_in(4)) return;
        disturbed_ = true;
        quirk = Quirk();
        quirk.at = kQuirky[below(std::size(kQuirky))];
        quirk.turn.count = 0;
        if (once_in(3)) quirk.say = below(1 << 16);
        quirk.silent = once_in(6);
        quirk.hang_up = once_in(6);
        quirk.twice = once_in(4);
        quirk.late = once_in(4) ? below(35'000) * kMillisecond : 0;
        play.stage.later(kQuirkLasts, [&quirk] { quirk.at.clear(); });
    }

    Play* play_ = nullptr;
    std::mt19937_64 random_;
    int passes_;
    Figures& figures_;
    bool crashed_ = false;    // the pass has a crash in it
    bool disturbed_ = false;  // and something that may keep it from being saved
    std::string nv_;
    pid_t daemon_ = -1;
    int age_ = 0;       // of the daemon, in passes
    long settled_ = 0;  // KiB
};

// The first flow with a crash, with room for what is to come.
Scenario soak_scenario() {
    const auto flows = parse_scenarios(kFlows, "flows.toml");
    Scenario scenario = *std::find_if(flows.begin(), flows.end(),
                                      [](const Scenario& flow) { return flow.name == "crash"; });
    scenario.name = "soak";
    scenario.timeline.clear();
    scenario.limit = kNever / 2;
    scenario.loader.resize(1);
    scenario.expect.requests.clear();
    scenario.expect.end = "stop";
    for (const char* call : kFaulty)
        scenario.faults.push_back(make_fault(call, INT32_MAX, "EIO"));
    return scenario;
}

}  // namespace

int run_soak(int64_t seed, int passes, RunOptions options, const Reporting& reporting) {
    if (!reporting.json) fmt::print("{} passes of seed {}\n", passes, seed);
    options.timeout = std::max(options.timeout, passes / kPassesPerSecond);
    void* const page = mmap(nullptr, sizeof(Figures), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) fail_errno("no memory for the figures");
    auto& figures = *new (page) Figures;
    options.conductor = std::make_shared<Soak>(seed, passes, figures);

    Outcome outcome;
    Progress progress("passes", static_cast<size_t>(passes));
    const int signal = run_one({"soak", soak_scenario(), options, options.story}, outcome,
                               [&] { progress.show(static_cast<size_t>(figures.passes), 0); });
    const int done = figures.passes, whole = figures.whole;
    if (!reporting.json)
        fmt::print("{} passes, {} of them with a crash that was saved whole\n", done, whole);
    Report report("soak", reporting);
    outcome.name = fmt::format("seed {}", seed);
    report.add(outcome);
    return report.finish(signal, {{"seed", seed}, {"passes", done}, {"saved_whole", whole}});
}

}  // namespace rvd::lab

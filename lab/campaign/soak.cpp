#include "lab/campaign/soak.h"

#include <fmt/core.h>
#include <fmt/format.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <filesystem>
#include <new>
#include <nlohmann/json.hpp>
#include <random>

#include "lab/builtin.h"
#include "lab/campaign/faults.h"
#include "lab/campaign/progress.h"
#include "lab/modem/modem.h"
#include "lab/run/checks.h"

namespace fs = std::filesystem;

namespace rvd::lab {

namespace {

constexpr char kLogs[] = "/data/vendor/log/rvd";
constexpr int kSettled = 50;       // passes after which a daemon needs no more memory
constexpr long kMoreMemory = 512;  // KiB
constexpr Time kQuirkLasts = 40 * kSecond;
constexpr int kSaving = 3;  // threads that may save logs beside the daemon's own

// The storm's disk, in MB, and below what the daemon takes no dump.
constexpr int kDisk = 1024, kLeastFree = 500;
constexpr int kSlowestPass = 2;  // seconds of real time

// One of a kind may fail in a pass, by its place here.
const char* const kFaulty[] = {"open", "read", "write", "fsync", "statfs", "mmap", "ioctl", "poll"};

const char* const kQuirky[] = {"0xA00D", "0xAF00", "0xAD00", "info", "reason", "1.1", "2.2"};

// How far a soak is: for the lab's process, in the memory that its run shares with it.
struct Figures {
    std::atomic<int> passes{0}, dumps{0}, whole{0}, refused{0}, disturbances{0};
    std::atomic<int64_t> bytes{0};  // saved
    std::atomic<Time> lived{0};     // of the phone's time
};

class Soak : public Conductor {
  public:
    Soak(const SoakOptions& options, Figures& figures)
        : random_(static_cast<uint64_t>(options.seed)),
          shape_(options.shape),
          passes_(options.passes),
          figures_(figures) {}

    void begin(Play& play) override {
        Conductor::begin(play);
        sigset_t held = interruptions();
        sigprocmask(SIG_BLOCK, &held, nullptr);
    }

    void fault(const Fault&) override {
        disturbed_ = true;
        figures_.disturbances++;
    }

    void line(const std::string& text) override {
        figures_.dumps += matches("*: DUMP DATA saved", text);
    }

    // The daemon waits for the modem: a pass has come to its rest.
    void waits() override {
        Play& play = *play_;
        auto& timeline = play.scenario.timeline;
        const size_t position = play.timeline.position();
        if (timeline.size() > position && timeline[position].waits) return;
        timeline.resize(position);
        check(play);
        play.story.forget();
        figures_.passes++;
        const bool last = ++played_ == passes_;
        if (last || interrupted() || !play.story.violations().empty()) return stop(play);
        figures_.lived = play.stage.now() - play.scenario.start;
        crashed_ = short_of_space_ = false;
        const auto& quirks = play.scenario.loader;
        disturbed_ = std::any_of(quirks.begin(), quirks.end(),
                                 [](const Quirk& quirk) { return !quirk.at.empty(); });
        if (shape_ == "storm") return storm(play);
        if (shape_ == "flap") return flap(play);
        if (shape_ == "liar") return lie(play);
        choose_events(timeline);
        choose_fault(play);
        if (once_in(4)) choose_quirk(play);
    }

    void judge(Conduct& conduct) override { check_expectations(*play_, conduct); }

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
                play.story.violation(fmt::format("descriptor {} is left open: ", fd) + path);
        }
        if (play.stage.descriptors().size() > 2)
            play.story.violation("more is open than the boot node and the log");
        const std::string nv = read_file(play.phone.path(play.scenario.nv_path()));
        if (nv_.empty()) nv_ = nv;
        if (nv != nv_) play.story.violation("the NV file has changed");
        check_files(play);
        check_process(play);
    }

    // What was collected is right as far as it goes, and whole where nothing was in the way.
    void check_files(Play& play) {
        // A liar's words decide what of a frame is data.
        if (shape_ != "liar") check_collected(play);
        for (const auto& [path, content] : closed_files(play.phone, {}))
            figures_.bytes += path.compare(0, sizeof(kLogs) - 1, kLogs) == 0
                                      ? static_cast<int64_t>(content.size())
                                      : 0;
        if (crashed_ && short_of_space_) check_refused(play);
        if (crashed_ && !disturbed_ && !short_of_space_) {
            Conduct soaked;
            soaked.end = play.scenario.expect.end;
            check_expectations(play, soaked);
            figures_.whole++;
        }
        fs::remove_all(play.phone.path(kLogs));
        fs::resize_file(play.phone.path(kAndroidLog), 0);  // it would fill the memory in the end
    }

    // Without the space for a dump the device goes to its upload mode, and nothing of it is saved.
    void check_refused(Play& play) {
        figures_.refused++;
        const auto& requests = play.story.requests();
        if (std::none_of(requests.begin(), requests.end(), [](const std::string& request) {
                return matches("TRIGGER_KERNEL_PANIC \"Not enough freespace\"*", request);
            }))
            play.story.violation("no upload is forced while the disk is full");
        for (const auto& [path, content] : closed_files(play.phone, {})) {
            if (matches("*/cpcrash_*", path))
                play.story.violation(path + " is saved while the disk is full");
        }
    }

    void check_process(Play& play) {
        const pid_t daemon = play.stage.daemon();
        const std::string status = read_file(fmt::format("/proc/{}/status", daemon));
        const auto number = [&](const char* name) {
            return strtol(status.c_str() + status.find(name) + strlen(name), nullptr, 10);
        };
        const long used = number("VmHWM:"), threads = number("Threads:");
        if (threads > 1 + kSaving)
            play.story.violation(fmt::format("the daemon has {} threads", threads));
        if (daemon != daemon_) age_ = 0;
        daemon_ = daemon;
        if (age_++ <= kSettled) settled_ = used;
        if (used > settled_ + kMoreMemory)
            play.story.violation(fmt::format("the daemon needs {} KiB, after {} passes {} KiB",
                                             used, kSettled, settled_));
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
        if (once_in(10)) event.set["vendor.rvd.first_xmit_done"] = std::to_string(below(2));
        crashed_ = event.state == 2;
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
        disturbed_ = true;
        figures_.disturbances++;
        Quirk quirk;
        quirk.turn.count = 0;
        if (once_in(3)) quirk.say = below(1 << 16);
        quirk.silent = once_in(6);
        quirk.hang_up = once_in(6);
        quirk.twice = once_in(4);
        quirk.late = once_in(4) ? below(35'000) * kMillisecond : 0;
        misbehave(play, static_cast<size_t>(below(std::size(kQuirky))), quirk);
    }

    // The boot loader may hold on to a quirk: it stays where it is, and ends without a place.
    static void misbehave(Play& play, size_t place, const Quirk& quirk) {
        Quirk& here = play.scenario.loader[place];
        here = quirk;
        here.at = kQuirky[place];
        play.stage.later(kQuirkLasts, [&here] { here.at.clear(); });
    }

    // A crash every few seconds, on a disk that others fill as well, until somebody empties it.
    void storm(Play& play) {
        used_ = used_ > kDisk ? 0 : used_ + below(30);
        play.scenario.free_mb["/data"] = std::max(kDisk - used_, 0);
        short_of_space_ = kDisk - used_ < kLeastFree;
        Event crash;
        crash.waits = crashed_ = true;
        crash.after = below(5'000) * kMillisecond;
        crash.state = once_in(2) ? 2 : 9;
        play.scenario.timeline.push_back(crash);
    }

    // States follow each other faster than they can be read; the last one ends the pass.
    void flap(Play& play) {
        disturbed_ = true;
        Time after = 0;
        const int changes = 2 + below(20);
        for (int i = 0; i < changes; i++) {
            static const int states[] = {1, 2, 9, 3, 0, 4, 42};
            const int state = i + 1 < changes ? states[below(7)] : states[below(3)];
            after += below(once_in(4) ? 3'000 : 3) * kMillisecond;
            play.stage.later(after, [&play, state] { play.modem.change_state(state); });
            figures_.disturbances++;
        }
    }

    // The boot loader says whatever comes to its mind, in every place at once.
    void lie(Play& play) {
        choose_events(play.scenario.timeline);
        disturbed_ = true;
        for (size_t place = 0; place < std::size(kQuirky); place++) {
            if (once_in(2)) continue;
            Quirk quirk;
            quirk.turn.nth = 1 + below(3);
            quirk.turn.count = 0;
            if (once_in(2)) quirk.say = below(1 << 16);
            if (once_in(2)) quirk.curr_frame = below(1 << (1 + below(30)));
            if (once_in(2)) quirk.len = below(1 << (1 + below(30)));
            if (once_in(4)) quirk.cut = below(64);
            if (once_in(4)) quirk.extra = below(4096);
            quirk.twice = once_in(8);
            figures_.disturbances++;
            misbehave(play, place, quirk);
        }
    }

    std::mt19937_64 random_;
    const std::string shape_;
    const int passes_;
    int played_ = 0;
    Figures& figures_;
    bool crashed_ = false;    // the pass has a crash in it
    bool disturbed_ = false;  // and something that may keep it from being saved
    bool short_of_space_ = false;
    int used_ = 0;  // MB of the storm's disk
    std::string nv_;
    pid_t daemon_ = -1;
    int age_ = 0;       // of the daemon, in passes
    long settled_ = 0;  // KiB
};

// The first flow with a crash, with room for what is to come.
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
    if (shape != "mixed") return scenario;
    for (const char* call : kFaulty)
        scenario.faults.push_back(make_fault(call, INT32_MAX, "EIO"));
    return scenario;
}

// A process that keeps a core busy until it is killed.
pid_t start_busy_loop() {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (volatile unsigned count = 0;; count = count + 1) {
    }
}

// The line in which two texts begin to differ, as it is in the first.
std::string different_line(const std::string& text, const std::string& other) {
    const auto at = std::mismatch(text.begin(), text.end(), other.begin(), other.end()).first;
    const auto here = static_cast<size_t>(at - text.begin());
    const size_t begin = here == 0 ? 0 : text.rfind('\n', here - 1) + 1;
    return text.substr(begin, text.find('\n', here) - begin);
}

// Tells the same story again and again while two busy loops hold the cores. Returns the signal that
// interrupted it, or 0.
int replay(Job job, int replays, Outcome& sum) {
    job.direct = false;
    job.options.story = true;
    const pid_t busy[] = {start_busy_loop(), start_busy_loop()};
    std::string wanted;
    int started = 0, told = 0;
    Progress progress("replays", static_cast<size_t>(replays));
    const auto next = [&]() -> std::optional<Job> {
        if (started++ == replays) return {};
        return job;
    };
    const auto done = [&](Outcome& outcome) {
        rethrow(outcome);
        if (told++ == 0) wanted = outcome.output;
        if (outcome.status != kHeld) sum.violations.push_back("a replay fails");
        if (outcome.output == wanted) return;
        sum.violations.push_back("\"" + different_line(outcome.output, wanted) +
                                 "\" instead of \"" + different_line(wanted, outcome.output) +
                                 "\"");
    };
    const int signal = run_each(next, 2, done, [&] {
        progress.show(static_cast<size_t>(told), sum.violations.size());
    });
    for (const pid_t pid : busy) {
        if (pid < 0) continue;
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    sum.status = sum.violations.empty() ? kHeld : kNotHeld;
    return signal;
}

}  // namespace

int run_soak(const SoakOptions& options, const Reporting& reporting) {
    RunOptions run = options.run;
    run.timeout = std::max(run.timeout, options.passes * kSlowestPass);
    void* const page = mmap(nullptr, sizeof(Figures), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) fail_errno("no memory for the figures");
    auto& figures = *new (page) Figures;
    run.conductor = std::make_shared<Soak>(options, figures);
    const Job job{"soak", soak_scenario(options.shape), run, run.story};

    if (!reporting.json)
        fmt::print("{} passes of seed {}, {}\n", options.passes, options.seed, options.shape);
    Outcome outcome;
    nlohmann::json table = {{"seed", options.seed}, {"shape", options.shape}};
    int signal = 0;
    if (options.replays > 0) {
        signal = replay(job, options.replays, outcome);
        table["replays"] = options.replays;
    } else {
        Progress progress("passes", static_cast<size_t>(options.passes));
        signal = run_one(job, outcome,
                         [&] { progress.show(static_cast<size_t>(figures.passes), 0); });
        table.update({{"passes", figures.passes.load()},
                      {"dumps", figures.dumps.load()},
                      {"saved_whole", figures.whole.load()},
                      {"refused", figures.refused.load()},
                      {"disturbances", figures.disturbances.load()},
                      {"bytes", figures.bytes.load()},
                      {"lived_seconds", figures.lived / kSecond},
                      {"wall_seconds", std::lround(outcome.spent.count())}});
    }
    if (!reporting.json) {
        for (const auto& [name, value] : table.items())
            fmt::print("{:<14} {}\n", name, value.dump());
    }
    Report report("soak", reporting);
    outcome.name = fmt::format("seed {}", options.seed);
    report.add(outcome);
    return report.finish(signal, table);
}

}  // namespace rvd::lab

#include "lab/campaign/soak.h"

#include <fmt/core.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <new>
#include <nlohmann/json.hpp>

#include "lab/campaign/passes.h"

namespace rvd::lab {

namespace {

constexpr int kSlowestPass = 2;  // seconds of real time

// In memory shared with the run's process.
SoakCounters& share_counters() {
    void* const page = mmap(nullptr, sizeof(SoakCounters), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) throw_errno("no memory for the counters");
    return *new (page) SoakCounters;
}

// A process that keeps a CPU busy.
class BusyLoop {
  public:
    BusyLoop() : pid_(fork()) {
        if (pid_ != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (volatile unsigned count = 0;; count = count + 1) {
        }
    }
    ~BusyLoop() {
        if (pid_ < 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    BusyLoop(const BusyLoop&) = delete;
    BusyLoop& operator=(const BusyLoop&) = delete;

  private:
    const pid_t pid_;
};

// The first text's line in which the texts begin to differ.
std::string different_line(const std::string& text, const std::string& other) {
    const auto length = std::mismatch(text.begin(), text.end(), other.begin(), other.end()).first -
                        text.begin();
    const auto common = static_cast<size_t>(length);
    const size_t begin = common == 0 ? 0 : text.rfind('\n', common - 1) + 1;
    return text.substr(begin, text.find('\n', common) - begin);
}

// Runs the same soak repeatedly beside two busy loops and compares the stories. Returns the signal
// that interrupted it, or 0.
int replay(Job job, int replays, Outcome& sum) {
    job.direct = false;
    job.options.story = true;
    const BusyLoop one, other;
    std::string first;
    size_t done = 0;
    const auto count = static_cast<size_t>(replays);
    Progress progress("replays", count);
    const auto compare = [&](size_t, Outcome& outcome) {
        throw_if_not_run(outcome);
        const std::string& story = outcome.output;
        if (done++ == 0) first = story;
        if (outcome.status != kPassed) sum.violations.push_back("a replay failed");
        if (story == first) return;
        sum.violations.push_back(fmt::format("\"{}\" instead of \"{}\"",
                                             different_line(story, first),
                                             different_line(first, story)));
    };
    const int signal = run_each(
            count, 2, [&](size_t) { return job; }, compare,
            [&] { progress.show(done, sum.violations.size()); });
    sum.status = sum.violations.empty() ? kPassed : kFailed;
    return signal;
}

// Runs the soak once. Returns the signal that interrupted it, or 0.
int run_once(const Job& job, int passes, const SoakCounters& counters, Outcome& outcome) {
    Progress progress("passes", static_cast<size_t>(passes));
    return run_each(
            1, 1, [&](size_t) { return job; },
            [&](size_t, Outcome& ended) { outcome = std::move(ended); },
            [&] { progress.show(static_cast<size_t>(counters.passes), 0); });
}

}  // namespace

int run_soak(const SoakOptions& options, const ReportOptions& reporting) {
    SoakCounters& counters = share_counters();
    RunOptions run = options.run;
    run.timeout = std::max(run.timeout, options.passes * kSlowestPass);
    run.controller = make_passes(options.seed, options.shape, options.passes, counters);
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
        signal = run_once(job, options.passes, counters, outcome);
        table.update({{"passes", counters.passes.load()},
                      {"dumps", counters.dumps.load()},
                      {"saved_whole", counters.complete.load()},
                      {"refused", counters.refused.load()},
                      {"disturbances", counters.disturbances.load()},
                      {"bytes", counters.bytes.load()},
                      {"lived_seconds", counters.virtual_time / kSecond},
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

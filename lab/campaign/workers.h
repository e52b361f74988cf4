// Runs scenarios, each in a process of its own, several at once.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "lab/run/run.h"

namespace rvd::lab {

// Exit statuses of a run's process and of rvd-lab.
constexpr int kPassed = 0;
constexpr int kFailed = 1;
constexpr int kError = 2;         // wrong usage or input, or a full disk
constexpr int kRebooting = 76;    // run again after the machine's reboot
constexpr int kUnsupported = 77;  // the kernel does not allow what the lab needs
constexpr int kSignalBase = 128;  // plus the number of the signal that ended it

struct Job {
    std::string suite;  // scenario file or flow
    Scenario scenario;
    RunOptions options;
    bool direct = false;  // prints to standard output, not into the outcome
};

// The result of a job.
struct Outcome {
    std::string suite = {}, name = {};
    int status = kPassed;
    std::chrono::duration<double> spent{0};  // real time
    std::vector<std::string> violations;     // or why the run was not possible
    std::string output;
    RunRecord record;  // if the job's options ask for it
};

// Runs `count` jobs: `make` creates the nth, `done` takes its outcome, and `tick` is called at
// least once a second. A signal ends the running jobs. Returns the signal's number, or 0.
int run_each(size_t count, int jobs, const std::function<Job(size_t)>& make,
             const std::function<void(size_t, Outcome&)>& done,
             const std::function<void()>& tick = {});

// Throws if the run was not possible.
void throw_if_not_run(const Outcome& outcome);

}  // namespace rvd::lab

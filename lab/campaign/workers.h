// Runs scenarios, each in a process of its own, several at once.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "lab/run/run.h"

namespace rvd::lab {

// Exit statuses of a run's process, and of the lab.
constexpr int kPassed = 0;
constexpr int kFailed = 1;
constexpr int kError = 2;         // wrong usage or input, or no room: the message says what
constexpr int kRebooting = 76;    // run again after the machine's reboot
constexpr int kUnsupported = 77;  // the kernel doesn't allow what the lab needs
constexpr int kSignalBase = 128;  // and the signal's number: ended by it

struct Job {
    std::string suite;  // its scenario file, or its flow
    Scenario scenario;
    RunOptions options;
    bool direct = false;  // prints where the lab does, instead of into its outcome
};

// What a run came to.
struct Outcome {
    std::string suite = {}, name = {};
    int status = kPassed;
    std::chrono::duration<double> spent{0};  // real time
    std::vector<std::string> violations;     // or why there was no run
    std::string output;
    RunRecord record;  // if the job's options ask for it
};

// Runs `count` jobs: `make` gives the nth, `done` takes its outcome, and `tick` is called at least
// once a second. Interrupted by a signal, it ends what runs and returns its number; 0 otherwise.
int run_each(size_t count, int jobs, const std::function<Job(size_t)>& make,
             const std::function<void(size_t, Outcome&)>& done,
             const std::function<void()>& tick = {});

// Throws what kept a run from being made.
void throw_if_not_run(const Outcome& outcome);

}  // namespace rvd::lab

// Runs many scenarios, each in a process of its own, several at once.
#pragma once

#include <stdio.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "lab/run/run.h"

namespace rvd::lab {

// What a run's process ends with, and the lab itself.
constexpr int kHeld = 0;
constexpr int kNotHeld = 1;
constexpr int kRefused = 2;     // wrong usage or input, or no room: the message says what
constexpr int kReboots = 76;    // run again after the machine's reboot
constexpr int kForbidden = 77;  // the kernel doesn't allow what the lab needs

struct Job {
    Scenario scenario;
    RunOptions options;
};
using Done = std::function<void(const std::string& name, int result, FILE* output)>;

// Runs what `next` gives, several at once, until it gives no more; `done` is told the name of the
// scenario, what it ended with, and what was said.
void run_each(const std::function<std::optional<Job>()>& next, int jobs, const Done& done);

std::string read_all(FILE* from);

// Runs all of them, tells of each in one line and shows the story of those that did not hold.
// Returns the worst result.
int run_all(const std::vector<Scenario>& scenarios, const RunOptions& options, int jobs,
            bool quiet);

// Runs one, telling its story as it happens.
int run_one(const Scenario& scenario, RunOptions options);

}  // namespace rvd::lab

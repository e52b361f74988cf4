// Runs many scenarios, each in a process of its own, several at once.
#pragma once

#include <vector>

#include "lab/run.h"

namespace rvd::lab {

// What a run's process ended with, and the lab itself.
constexpr int kHeld = 0;
constexpr int kNotHeld = 1;
constexpr int kReboots = 76;  // run again after the machine's reboot
constexpr int kUnable = 77;

// Runs all of them, tells of each in one line and shows the story of those that did not hold.
// Returns the worst result.
int run_all(const std::vector<Scenario>& scenarios, RunOptions options, int jobs, bool quiet);

// Runs one, telling its story as it happens.
int run_one(const Scenario& scenario, RunOptions options);

}  // namespace rvd::lab

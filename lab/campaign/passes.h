// The passes of a soak: random events and faults, and the checks after each pass.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "lab/run/run.h"

namespace rvd::lab {

// Counted during the soak, for its progress and report.
struct SoakCounters {
    std::atomic<int> passes{0}, dumps{0}, complete{0}, refused{0}, disturbances{0};
    std::atomic<int64_t> bytes{0};  // saved
    std::atomic<Time> virtual_time{0};
};

// The flow "crash" without its timeline, as the base of all passes.
Scenario soak_scenario(const std::string& shape);

std::shared_ptr<RunController> make_passes(int64_t seed, const std::string& shape, int count,
                                           SoakCounters& counters);

}  // namespace rvd::lab

// The passes of a soak: what a seed makes of each, and what must hold at its end.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "lab/run/run.h"

namespace rvd::lab {

// How far a soak is.
struct SoakCounters {
    std::atomic<int> passes{0}, dumps{0}, whole{0}, refused{0}, disturbances{0};
    std::atomic<int64_t> bytes{0};  // saved
    std::atomic<Time> lived{0};     // of the phone's time
};

// The first flow with a crash, with room for what is to come.
Scenario soak_scenario(const std::string& shape);

std::shared_ptr<RunController> make_passes(int64_t seed, const std::string& shape, int count,
                                           SoakCounters& counters);

}  // namespace rvd::lab

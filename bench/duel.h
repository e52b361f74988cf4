// The daemon's code and the barest code that could do the same, in turn.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>

#include "util/ScopedFd.h"

namespace rvd::bench {

constexpr uint32_t kMiB = 1 << 20;

// Fills the registry for the external modem, silences the logs, and has the driver grant every
// request for the price of a small system call. Once is enough.
void set_up_daemon();

// An empty file that is gone with its descriptor.
ScopedFd scratch_file();

// Runs two ways of the same work in turn, so that other load on the machine affects both. `prepare`
// runs before each and is not measured. Work that returns false fails the benchmark.
using Work = std::function<bool()>;
void duel(benchmark::State& state, uint64_t bytes, const Work& prepare, const Work& daemon,
          const Work& bare);

}  // namespace rvd::bench

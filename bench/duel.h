// What the figures stand on: the daemon's code and the barest code that could do the same, in turn.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "util/ScopedFd.h"

namespace rvd::bench {

constexpr uint32_t kMiB = 1 << 20;

// The registry filled for the external modem, the logs led to nowhere, and a driver that takes
// every request for the price of a system call that does next to nothing. Once is enough.
void set_up_daemon();

// An empty file that goes with its descriptor.
ScopedFd scratch_file();

// Runs two ways of the same work in turn, so that what else the machine does meets both.
class Duel {
  public:
    // False: the work failed, and so has the duel.
    using Work = std::function<bool()>;

    // `prepare` runs before each work and is not measured.
    Duel(benchmark::State& state, uint64_t bytes, Work prepare)
        : state_(state), bytes_(bytes), prepare_(std::move(prepare)) {}

    void run(const Work& daemon, const Work& bare);

  private:
    bool measure(const Work& work, std::vector<double>* seconds);

    benchmark::State& state_;
    uint64_t bytes_;
    Work prepare_;
    std::vector<double> daemon_, bare_;  // s
};

}  // namespace rvd::bench

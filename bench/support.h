// What the figures stand on: the daemon set up on a link of its own, a boot loader in a process of
// its own at the other end, and a stopwatch for the daemon and the barest loop side by side.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "util/ScopedFd.h"

namespace benchmark {
class State;
}

namespace rvd::bench {

// Allocations of this process so far.
uint64_t allocations();

// The registry filled for the external modem, and the logs led to nowhere. Once is enough.
void set_up_daemon();

// An empty file that goes with its descriptor.
ScopedFd scratch_file();

// The external modem, with both nodes on one end of a SEQPACKET pair; `loader` plays the other end
// in a child process until the pair closes. One at a time.
class Phone {
  public:
    explicit Phone(const std::function<void(int link)>& loader);
    ~Phone();
    Phone(const Phone&) = delete;
    Phone& operator=(const Phone&) = delete;

    int link() const { return link_.get(); }

  private:
    ScopedFd link_;
    pid_t child_;
};

// What the daemon receives and sends, by its own code and by the barest loop that could do the same
// over this phone's link. False when it failed.
struct Upload {
    uint32_t steps, step_size;

    uint64_t frames() const;
    void play_loader(int link) const;
    bool by_daemon(const Phone& phone, int dump_fd, int info_fd) const;
    bool by_bare_loop(const Phone& phone, int dump_fd) const;
};
struct Download {
    uint32_t size;

    uint64_t frames() const;
    static void play_loader(int link);
    bool by_daemon(int image_fd) const;
    bool by_bare_loop(const Phone& phone, int image_fd) const;
};

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
    void report(uint64_t allocated);

    benchmark::State& state_;
    uint64_t bytes_;
    Work prepare_;
    std::vector<double> daemon_, bare_;  // s
};

}  // namespace rvd::bench

// The kernel as the daemon's code meets it in tests, fuzz targets and benches: the executable's own
// ioctl, poll, sleep, usleep, statfs, klogctl and pthread_detach take the place of the C library's.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace rvd::test {

struct Kernel {
    // Answers the requests to the modem's driver; without one they go to the machine's kernel.
    std::function<int(int fd, unsigned request, void* argument)> driver;
    bool real_time = false;  // pauses and waits take their time

    // Runs when the daemon begins to wait on a descriptor: the other end's turn.
    std::function<void()> on_wait;
    std::deque<short> wait_ends;     // what the next waits report, whatever their descriptor does
    std::vector<int> timeouts;       // ms, of the waits that ended without an event
    std::function<void()> on_sleep;  // runs in every pause of the daemon
    std::vector<unsigned> sleeps;    // ms
    std::mutex sleeping;

    unsigned long block_size = 1024;
    unsigned long free_blocks = 1u << 30;
    int statfs_error = 0;
    std::string ring = "<6>ring\n";  // the kernel's log
    int ring_error = 0;

    // Waits for the threads that the daemon left to themselves. Returns how many there were.
    size_t join_detached();
    std::vector<pthread_t> detached;
};

Kernel& kernel();
void reset_kernel();

// The blocks that the daemon's code asks the heap for, where memory.cpp is linked in.
extern std::atomic<uint64_t> allocations;
extern std::atomic<size_t> largest_block;  // larger ones are refused

}  // namespace rvd::test

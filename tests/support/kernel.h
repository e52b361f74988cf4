// A fake kernel for tests, fuzz targets and benchmarks: ioctl, poll, sleep, usleep, statfs, klogctl
// and pthread_detach defined in the executable replace the C library's.
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
    // Answers the requests to the modem's driver; without it they go to the real kernel.
    std::function<int(int fd, unsigned request, void* argument)> driver;
    bool real_time = false;  // otherwise sleeps and timeouts take no time

    std::function<void()> on_wait;   // runs at the start of each blocking poll()
    std::deque<short> poll_results;  // revents of the next polls, whatever their descriptor does
    std::vector<int> timeouts;       // ms, of the polls that timed out
    std::function<void()> on_sleep;  // runs in every sleep
    std::vector<unsigned> sleeps;    // ms
    std::mutex sleeping;

    unsigned long block_size = 1024;
    unsigned long free_blocks = 1u << 30;
    int statfs_error = 0;
    std::string ring = "<6>ring\n";  // the kernel's log buffer
    int ring_error = 0;

    // Joins the threads that the daemon detached. Returns their number.
    size_t join_detached();
    std::vector<pthread_t> detached;
};

Kernel& kernel();
void reset_kernel();

// Allocations of the daemon's code, in an executable that links memory.cpp.
extern std::atomic<uint64_t> allocations;
extern std::atomic<size_t> largest_block;  // a larger allocation fails

}  // namespace rvd::test

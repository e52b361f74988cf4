// What the daemon asks of the kernel and a test answers: the driver's requests, waiting, free space
// and the kernel's log ring. The executable's own ioctl, poll, sleep, usleep, statfs, klogctl and
// pthread_detach take the place of the C library's, and it stands before calloc and posix_memalign.
#pragma once

#include <pthread.h>

#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace rvd::test {

// The driver behind both nodes: a script of the requests it expects, in order.
class Driver {
  public:
    // The next request is this one; the daemon gets `result`, with EIO where that is negative.
    void expect(unsigned request, int result = 0) {
        script_.push_back({request, [result](void*) { return result; }});
    }
    // The next request is this one and carries a Record, which `answer` may read and fill.
    template <class Record, class Answer>
    void expect(unsigned request, Answer answer) {
        script_.push_back({request, [answer](void* record) {
                               return static_cast<int>(answer(*static_cast<Record*>(record)));
                           }});
    }

    int request(int fd, unsigned request, void* argument);
    // Fails the test for every request that never came.
    void verify();

  private:
    struct Step {
        unsigned request;
        std::function<int(void*)> answer;
    };
    std::deque<Step> script_;
};

// Everything else; reset for every test.
struct Kernel {
    Driver driver;
    // Runs when the daemon begins to wait on a descriptor: the other end's turn.
    std::function<void()> on_wait;
    std::deque<short> wait_ends;     // what the next waits report, whatever their descriptor does
    std::function<void()> on_sleep;  // runs in every pause of the daemon
    std::vector<int> timeouts;       // ms, of the waits that ended without an event
    std::vector<unsigned> sleeps;    // ms
    std::mutex sleeping;
    unsigned long block_size = 1024;
    unsigned long free_blocks = 1u << 30;
    int statfs_error = 0;
    std::string ring = "<6>ring\n";  // the kernel's log
    int ring_error = 0;
    size_t largest_block = SIZE_MAX;  // larger ones are refused

    // Waits for the threads that the daemon left to themselves. Returns how many there were.
    size_t join_detached();
    std::vector<pthread_t> detached;
};

Kernel& kernel();
void reset_kernel();

}  // namespace rvd::test

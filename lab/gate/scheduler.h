// The virtual clock and the state of each of the daemon's threads. One thread runs at a time, until
// it reaches its next intercepted system call; the clock advances only while all threads wait.
#pragma once

#include <algorithm>
#include <list>

#include "lab/gate/daemon.h"

namespace rvd::lab {

class Scheduler {
  public:
    struct Thread {
        enum class State { runs, blocked, stopped, waits };

        Call call;  // the one that it is stopped at or waits in
        State state;
        Time deadline;  // of a waiting thread
    };

    explicit Scheduler(Time start) : start_(start), now_(start), last_activity_(start) {}

    Time start() const { return start_; }
    Time now() const { return now_; }
    void set(Time now) { now_ = now; }

    // When the daemon last did anything but wait.
    Time last_activity() const { return last_activity_; }
    void note_activity() { last_activity_ = now_; }

    // The daemon, or one more thread, has been started and has not made its first call.
    void restart() {
        threads_.clear();
        expected_threads_ = 1;
        last_run_ = 0;
    }

    void expect_thread() { expected_threads_++; }
    void remove(pid_t tid) {
        threads_.remove_if([&](const Thread& thread) { return thread.call.tid() == tid; });
    }

    // A thread stops at a call, waits in it, or runs on. A blocked thread waits for another one.
    void stop_at(const Call& call) {
        Thread* thread = find(call.tid());
        if (thread == nullptr) {
            expected_threads_ = std::max(expected_threads_ - 1, 0);
            thread = &threads_.emplace_back();
        }
        *thread = {call, Thread::State::stopped, kNever};
    }

    void wait_in(const Call& call, Time deadline) {
        *find(call.tid()) = {call, Thread::State::waits, deadline};
    }

    void resume(pid_t tid) {
        find(tid)->state = Thread::State::runs;
        last_run_ = tid;
    }

    void set_blocked(pid_t tid) {
        if (Thread* thread = find(tid)) thread->state = Thread::State::blocked;
    }

    // Whether no thread is running or starting, and not all are blocked.
    bool is_quiescent() const {
        const bool able = std::any_of(threads_.begin(), threads_.end(), [](const Thread& thread) {
            return thread.state != Thread::State::blocked;
        });
        return expected_threads_ == 0 && running() == 0 && able;
    }

    // The running thread, or 0.
    pid_t running() const {
        for (const Thread& thread : threads_) {
            if (thread.state == Thread::State::runs) return thread.call.tid();
        }
        return 0;
    }

    bool has(pid_t tid) { return find(tid) != nullptr; }
    const std::list<Thread>& threads() const { return threads_; }  // oldest first

    // The stopped thread to serve next: the one that ran last, or else the oldest; null if none.
    const Thread* next() const {
        const Thread* oldest = nullptr;
        for (const Thread& thread : threads_) {
            if (thread.state != Thread::State::stopped) continue;
            if (thread.call.tid() == last_run_) return &thread;
            if (oldest == nullptr) oldest = &thread;
        }
        return oldest;
    }

    // The waiting thread with the earliest deadline; null if none waits.
    const Thread* first_waiting() const {
        const Thread* first = nullptr;
        for (const Thread& thread : threads_) {
            if (thread.state == Thread::State::waits &&
                (first == nullptr || thread.deadline < first->deadline))
                first = &thread;
        }
        return first;
    }

  private:
    Thread* find(pid_t tid) {
        for (Thread& thread : threads_) {
            if (thread.call.tid() == tid) return &thread;
        }
        return nullptr;
    }

    const Time start_;
    Time now_, last_activity_;
    int expected_threads_ = 0;
    std::list<Thread> threads_;
    pid_t last_run_ = 0;
};

}  // namespace rvd::lab

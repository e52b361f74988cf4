// The virtual clock, and the daemon's threads by what they do: one runs at a time, each until it
// waits or ends, and time passes only when all of them wait. A thread that runs stops at its next
// system call, so that between two calls nothing of the daemon moves but that thread.
#pragma once

#include <algorithm>
#include <vector>

#include "lab/gate/daemon.h"

namespace rvd::lab {

class Clock {
  public:
    struct Thread {
        enum class State { runs, blocked, stopped, waits };

        Call call;  // that it has stopped at or waits in
        State state = State::stopped;
        Time deadline = kNever;
        bool idle = true;     // has done nothing since it last slept
        bool hollow = false;  // only sleeps, as a sanitizer's helper thread does
    };

    explicit Clock(Time start) : start_(start), now_(start), last_activity_(start) {}

    Time start() const { return start_; }
    Time now() const { return now_; }
    Time last_activity() const { return last_activity_; }
    void set(Time now) { now_ = now; }

    // The daemon, or one more thread, was started and has not made its first call.
    void restart() {
        threads_.clear();
        births_ = 1;
        last_run_ = 0;
    }

    void born() { births_++; }
    void gone(pid_t tid) {
        if (const Thread* thread = find(tid))
            threads_.erase(threads_.begin() + (thread - &threads_[0]));
    }

    // A thread stops at a call, waits in it, or resumes. A blocked one waits for another thread.
    void arrive(const Call& call) {
        Thread* thread = find(call.tid());
        if (thread == nullptr) {
            births_ = std::max(births_ - 1, 0);
            thread = &threads_.emplace_back();
        }
        thread->call = call;
        thread->state = Thread::State::stopped;
    }

    void hold(const Call& call, Time deadline) {
        Thread* thread = find(call.tid());
        thread->state = Thread::State::waits;
        thread->deadline = deadline;
        thread->hollow = false;
    }

    void resume(pid_t tid) {
        find(tid)->state = Thread::State::runs;
        last_run_ = tid;
    }

    void block(pid_t tid) {
        if (Thread* thread = find(tid)) thread->state = Thread::State::blocked;
    }

    // Holds a sleeping thread. True if all other threads are hollow and asleep.
    bool sleep(const Call& call, Time deadline, bool is_helper) {
        hold(call, deadline);
        Thread* sleeper = find(call.tid());
        sleeper->hollow = is_helper && sleeper->idle;
        sleeper->idle = sleeper->idle || is_helper;
        return std::all_of(threads_.begin(), threads_.end(), [&](const Thread& thread) {
            return &thread == sleeper || (thread.hollow && thread.state == Thread::State::waits);
        });
    }

    // A thread, or the one that ran last, did something other than wait.
    void note_activity(pid_t tid) {
        last_activity_ = now_;
        if (Thread* thread = find(tid)) thread->idle = false;
    }

    void note_activity() { note_activity(last_run_); }

    // No thread is running or starting.
    bool at_rest() const {
        const bool able = std::any_of(threads_.begin(), threads_.end(), [](const Thread& thread) {
            return thread.state == Thread::State::stopped || thread.state == Thread::State::waits;
        });
        return births_ == 0 && running() == 0 && able;
    }

    // 0 if none is.
    pid_t running() const {
        for (const Thread& thread : threads_) {
            if (thread.state == Thread::State::runs) return thread.call.tid();
        }
        return 0;
    }

    bool knows(pid_t tid) { return find(tid) != nullptr; }
    const std::vector<Thread>& threads() const { return threads_; }  // in the order of their birth

    // The stopped thread to serve next: the one that ran last, or else the oldest.
    const Thread* next() const {
        const Thread* oldest = nullptr;
        for (const Thread& thread : threads_) {
            if (thread.state != Thread::State::stopped) continue;
            if (thread.call.tid() == last_run_) return &thread;
            if (oldest == nullptr) oldest = &thread;
        }
        return oldest;
    }

    // The thread with the earliest deadline; the earliest deadline of all that are not hollow.
    const Thread* first_waiting() const {
        const Thread* first = nullptr;
        for (const Thread& thread : threads_) {
            if (thread.state == Thread::State::waits &&
                (first == nullptr || thread.deadline < first->deadline))
                first = &thread;
        }
        return first;
    }

    Time first_deadline() const {
        Time first = kNever;
        for (const Thread& thread : threads_) {
            if (thread.state == Thread::State::waits && !thread.hollow)
                first = std::min(first, thread.deadline);
        }
        return first;
    }

  private:
    Thread* find(pid_t tid) {
        const auto found =
                std::find_if(threads_.begin(), threads_.end(),
                             [&](const Thread& thread) { return thread.call.tid() == tid; });
        return found == threads_.end() ? nullptr : &*found;
    }

    const Time start_;
    Time now_, last_activity_;
    int births_ = 0;
    std::vector<Thread> threads_;
    pid_t last_run_ = 0;
};

}  // namespace rvd::lab

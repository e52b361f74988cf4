#include "lab/gate/clock.h"

#include <algorithm>

namespace rvd::lab {

void Clock::restart() {
    threads_.clear();
    births_ = 1;
    last_run_ = 0;
}

Clock::Thread* Clock::find(pid_t tid) {
    for (Thread& thread : threads_) {
        if (thread.call.tid() == tid) return &thread;
    }
    return nullptr;
}

bool Clock::knows(pid_t tid) const {
    return std::any_of(threads_.begin(), threads_.end(),
                       [&](const Thread& thread) { return thread.call.tid() == tid; });
}

void Clock::gone(pid_t tid) {
    threads_.erase(std::remove_if(threads_.begin(), threads_.end(),
                                  [&](const Thread& thread) { return thread.call.tid() == tid; }),
                   threads_.end());
}

void Clock::arrive(const Call& call) {
    Thread* thread = find(call.tid());
    if (thread == nullptr) {
        births_ = std::max(births_ - 1, 0);
        thread = &threads_.emplace_back();
    }
    thread->call = call;
    thread->state = Thread::State::stopped;
}

void Clock::hold(const Call& call, Time deadline) {
    Thread* thread = find(call.tid());
    thread->state = Thread::State::waits;
    thread->deadline = deadline;
    thread->hollow = false;
}

void Clock::resume(pid_t tid) {
    find(tid)->state = Thread::State::runs;
    last_run_ = tid;
}

void Clock::block(pid_t tid) {
    if (Thread* thread = find(tid)) thread->state = Thread::State::blocked;
}

bool Clock::at_rest() const {
    const bool able = std::any_of(threads_.begin(), threads_.end(), [](const Thread& thread) {
        return thread.state == Thread::State::stopped || thread.state == Thread::State::waits;
    });
    return births_ == 0 && running() == 0 && able;
}

const Clock::Thread* Clock::next() const {
    const Thread* oldest = nullptr;
    for (const Thread& thread : threads_) {
        if (thread.state != Thread::State::stopped) continue;
        if (thread.call.tid() == last_run_) return &thread;
        if (oldest == nullptr) oldest = &thread;
    }
    return oldest;
}

pid_t Clock::running() const {
    for (const Thread& thread : threads_) {
        if (thread.state == Thread::State::runs) return thread.call.tid();
    }
    return 0;
}

void Clock::note_activity() {
    note_activity(last_run_);
}

void Clock::note_activity(pid_t tid) {
    last_activity_ = now_;
    if (Thread* thread = find(tid)) thread->idle = false;
}

bool Clock::fall_asleep(pid_t tid) {
    Thread* thread = find(tid);
    const bool awake = !thread->idle;
    thread->idle = true;
    return awake;
}

void Clock::mark_hollow(pid_t tid) {
    find(tid)->hollow = true;
}

bool Clock::alone(pid_t tid) const {
    return std::all_of(threads_.begin(), threads_.end(), [&](const Thread& thread) {
        const bool hollow = thread.hollow && thread.state == Thread::State::waits;
        return hollow || thread.call.tid() == tid;
    });
}

Time Clock::first_deadline() const {
    Time first = kNever;
    for (const Thread& thread : threads_) {
        if (thread.state == Thread::State::waits && !thread.hollow)
            first = std::min(first, thread.deadline);
    }
    return first;
}

const Clock::Thread* Clock::first_waiting() const {
    const Thread* first = nullptr;
    for (const Thread& thread : threads_) {
        if (thread.state == Thread::State::waits &&
            (first == nullptr || thread.deadline < first->deadline))
            first = &thread;
    }
    return first;
}

}  // namespace rvd::lab

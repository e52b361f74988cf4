#include "lab/gate/clock.h"

#include <algorithm>

namespace rvd::lab {

using State = Clock::Thread::State;

void Clock::restart() {
    threads_.clear();
    births_ = 1;
    last_run_ = 0;
}

Clock::Thread* Clock::find(pid_t tid) {
    const auto found = std::find_if(threads_.begin(), threads_.end(),
                                    [&](const Thread& thread) { return thread.call.tid() == tid; });
    return found == threads_.end() ? nullptr : &*found;
}

void Clock::gone(pid_t tid) {
    if (const Thread* thread = find(tid))
        threads_.erase(threads_.begin() + (thread - &threads_[0]));
}

void Clock::arrive(const Call& call) {
    Thread* thread = find(call.tid());
    if (thread == nullptr) {
        births_ = std::max(births_ - 1, 0);
        thread = &threads_.emplace_back();
    }
    thread->call = call;
    thread->state = State::stopped;
}

void Clock::hold(const Call& call, Time deadline) {
    Thread* thread = find(call.tid());
    thread->state = State::waits;
    thread->deadline = deadline;
    thread->hollow = false;
}

bool Clock::sleep(const Call& call, Time deadline, bool is_helper) {
    hold(call, deadline);
    Thread* sleeper = find(call.tid());
    sleeper->hollow = is_helper && sleeper->idle;
    sleeper->idle = sleeper->idle || is_helper;
    return std::all_of(threads_.begin(), threads_.end(), [&](const Thread& thread) {
        return &thread == sleeper || (thread.hollow && thread.state == State::waits);
    });
}

void Clock::resume(pid_t tid) {
    find(tid)->state = State::runs;
    last_run_ = tid;
}

void Clock::block(pid_t tid) {
    if (Thread* thread = find(tid)) thread->state = State::blocked;
}

void Clock::note_activity(pid_t tid) {
    last_activity_ = now_;
    if (Thread* thread = find(tid)) thread->idle = false;
}

bool Clock::at_rest() const {
    const bool able = std::any_of(threads_.begin(), threads_.end(), [](const Thread& thread) {
        return thread.state == State::stopped || thread.state == State::waits;
    });
    return births_ == 0 && running() == 0 && able;
}

pid_t Clock::running() const {
    for (const Thread& thread : threads_) {
        if (thread.state == State::runs) return thread.call.tid();
    }
    return 0;
}

const Clock::Thread* Clock::next() const {
    const Thread* oldest = nullptr;
    for (const Thread& thread : threads_) {
        if (thread.state != State::stopped) continue;
        if (thread.call.tid() == last_run_) return &thread;
        if (oldest == nullptr) oldest = &thread;
    }
    return oldest;
}

const Clock::Thread* Clock::first_waiting() const {
    const Thread* first = nullptr;
    for (const Thread& thread : threads_) {
        if (thread.state == State::waits && (first == nullptr || thread.deadline < first->deadline))
            first = &thread;
    }
    return first;
}

Time Clock::first_deadline() const {
    Time first = kNever;
    for (const Thread& thread : threads_) {
        if (thread.state == State::waits && !thread.hollow)
            first = std::min(first, thread.deadline);
    }
    return first;
}

}  // namespace rvd::lab

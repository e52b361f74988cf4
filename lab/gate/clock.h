// The virtual clock, and the daemon's threads by what they do: one runs at a time, each until it
// waits or ends, and time passes only when all of them wait. A thread that runs stops at its next
// system call, so that between two calls nothing of the daemon moves but that thread.
#pragma once

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
        bool hollow = false;  // only ever sleeps, as a sanitizer's helper: nothing comes of it
    };

    explicit Clock(Time start) : start_(start), now_(start), last_activity_(start) {}

    Time start() const { return start_; }
    Time now() const { return now_; }
    Time last_activity() const { return last_activity_; }
    void set(Time now) { now_ = now; }

    // The daemon was started, or a thread made: it is on its way to its first call.
    void restart();
    void born() { births_++; }
    void gone(pid_t tid);

    // A thread has stopped at a call, waits in it, goes on; or it waits for a thread that is not to
    // run yet, so that one may.
    void arrive(const Call& call);
    void hold(const Call& call, Time deadline);
    void resume(pid_t tid);
    void block(pid_t tid);

    // As hold(); true where all but hollow threads sleep then.
    bool sleep(const Call& call, Time deadline, bool is_helper);

    // Something other than waiting was done by a thread, or by the one that ran last.
    void note_activity(pid_t tid);
    void note_activity() { note_activity(last_run_); }

    bool at_rest() const;   // no thread runs, and none is on its way
    pid_t running() const;  // or 0
    bool knows(pid_t tid) { return find(tid) != nullptr; }
    const std::vector<Thread>& threads() const { return threads_; }  // in the order of their birth

    // Whose call comes next: of the thread that ran last, or else the oldest that has stopped.
    const Thread* next() const;

    // The thread whose wait is over first; of those that something can come of, when it is.
    const Thread* first_waiting() const;
    Time first_deadline() const;

  private:
    Thread* find(pid_t tid);

    const Time start_;
    Time now_, last_activity_;
    int births_ = 0;
    std::vector<Thread> threads_;
    pid_t last_run_ = 0;
};

}  // namespace rvd::lab

#include "lab/gate/gate.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "lab/modem/memory.h"

// Newer than some headers: the thread that is answered runs at once, on the processor that
// answered.
#ifndef SECCOMP_IOCTL_NOTIF_SET_FLAGS
#define SECCOMP_IOCTL_NOTIF_SET_FLAGS SECCOMP_IOW(4, __u64)
#define SECCOMP_USER_NOTIF_FD_SYNC_WAKE_UP (1UL << 0)
#endif

namespace rvd::lab {

namespace {

using std::chrono::steady_clock;

// With nothing but sleeps for so long, and nothing to come, the daemon has parked.
constexpr Time kQuiet = 200 * kSecond;

// With the real clock a wait isn't seen; but no wait of the daemon's for the modem is longer.
constexpr Time kRealQuiet = 35 * kSecond;

// A running thread that says nothing for so long may wait for one that is kept waiting.
constexpr int kRunnerPatienceMs = 50;

constexpr int kFarewellMs = 5000;

}  // namespace

Gate::Gate(const Scenario& scenario, const Phone& phone, Story& story, Setup setup)
    : RunStage(scenario, story),
      phone_(phone),
      setup_(setup),
      now_(setup.start),
      last_activity_(setup.start),
      real_start_(steady_clock::now()) {
    const auto shapes = calls_to_watch(scenario, !setup.real_time, setup.learn);
    rules_ = rules_for(shapes);
    for (const CallShape& shape : shapes)
        shapes_.emplace(shape.number, shape);
}

Gate::~Gate() {
    close_process();
}

void Gate::start_daemon() {
    close_process();
    process_ = launch(phone_.root(), scenario_.args, rules_, !setup_.real_time);
    ioctl(process_.listener, SECCOMP_IOCTL_NOTIF_SET_FLAGS, SECCOMP_USER_NOTIF_FD_SYNC_WAKE_UP);
    tell_start();
}

bool Gate::reboot() {
    start_daemon();
    return true;
}

void Gate::recount_faults() {
    for (const Fault& fault : scenario_.faults)
        fault.turn.seen = 0;
}

// Nothing of the process outlives this: not its threads, nor what it had open.
void Gate::close_process() {
    if (process_.pid < 0) return;
    kill(process_.pid, SIGKILL);
    waitpid(process_.pid, nullptr, 0);
    drain();
    close(process_.pidfd);
    close(process_.listener);
    for (const Link& link : links_)
        close(link.fd);
    for (const KernelLog& log : kernel_logs_)
        close(log.fd);
    process_ = Process();
    links_.clear();
    kernel_logs_.clear();
    threads_.clear();
    queue_.clear();
    waiting_.clear();
    idle_.clear();
    births_ = 0;
    runner_ = 0;
    gone_ = in_main_ = false;
}

std::string Gate::serve() {
    while (end_.empty()) {
        run_due_events();
        if (!setup_.real_time) schedule();
        if (end_.empty()) wait_for_something();
        if (setup_.real_time && events_.empty() && now_ - last_activity_ > kRealQuiet)
            stop("quiet");
        if (steady_clock::now() - real_start_ > setup_.patience) {
            story_.violation(format("the run took longer than %lld s of real time",
                                    static_cast<long long>(setup_.patience.count())));
            end_ = "timeout";
        }
    }
    drain();
    end_daemon();
    return end_;
}

// A daemon that writes something down on its way out (coverage does) is given the time for it.
void Gate::end_daemon() {
    if (process_.pid >= 0 && getenv("GCOV_PREFIX") != nullptr) {
        kill(process_.pid, SIGTERM);
        pollfd ready[] = {{process_.listener, POLLIN, 0}, {process_.pidfd, POLLIN, 0}};
        while (poll(ready, 2, kFarewellMs) > 0 && (ready[1].revents & POLLIN) == 0) {
            Call call{};
            if (ioctl(process_.listener, SECCOMP_IOCTL_NOTIF_RECV, &call.raw) == 0) proceed(call);
        }
    }
    close_process();
}

void Gate::wait_for_something() {
    std::vector<pollfd> set = {{process_.listener, POLLIN, 0}, {process_.pidfd, POLLIN, 0}};
    for (const KernelLog& log : kernel_logs_)
        set.push_back({log.fd, POLLIN, 0});
    for (const Link& link : links_) {
        if (!link.hung)
            set.push_back({link.fd, static_cast<short>(POLLIN | (link.pending ? POLLOUT : 0)), 0});
    }
    int timeout = 1000;
    if (setup_.real_time && !events_.empty())
        timeout = static_cast<int>(
                std::clamp<Time>((events_.begin()->first - now_) / kMillisecond, 0, timeout));
    const bool others = !setup_.real_time && !queue_.empty();
    if (others) timeout = kRunnerPatienceMs;
    const int ready = poll(set.data(), set.size(), timeout);
    if (setup_.real_time) {
        now_ = setup_.start + (steady_clock::now() - real_start_) / std::chrono::nanoseconds(1);
        story_.set_time(now_);
    }
    if (ready == 0 && others) runner_ = 0;
    if (set[0].revents & POLLIN) {
        take_notification();
    } else {
        drain();
    }
    if (set[1].revents & POLLIN) reap();
}

void Gate::take_notification() {
    Call call{};
    if (ioctl(process_.listener, SECCOMP_IOCTL_NOTIF_RECV, &call.raw) != 0) return;
    const auto shape = shapes_.find(call.raw.data.nr);
    call.shape = &shape->second;
    drain();
    if (setup_.real_time) {
        handle(call);
        return;
    }
    if (threads_.insert(call.tid()).second) {
        births_ = std::max(births_ - 1, 0);
        idle_.insert(call.tid());
    }
    if (runner_ == call.tid()) {
        handle(call);
    } else {
        queue_.emplace(call.tid(), call);
    }
}

void Gate::reap() {
    int status = 0;
    if (waitpid(process_.pid, &status, WNOHANG) != process_.pid) return;
    drain();
    process_.pid = -1;
    take_end(status);
}

// One thread at a time, the oldest first, so that the same scenario is always the same story.
void Gate::schedule() {
    while (end_.empty() && runner_ == 0 && births_ == 0 && !threads_.empty()) {
        if (!queue_.empty()) {
            const Call call = queue_.begin()->second;
            queue_.erase(queue_.begin());
            runner_ = call.tid();
            handle(call);
        } else if (!answer_ready_polls()) {
            if (waiting_.size() != threads_.size()) break;
            advance();
        }
    }
}

bool Gate::answer_ready_polls() {
    for (const auto& [tid, waiting] : waiting_) {
        if (waiting.call.shape->service != Service::poll || !poll_ready(waiting.call)) continue;
        runner_ = tid;
        waiting_.erase(tid);
        return true;
    }
    return false;
}

void Gate::advance() {
    const Time event = events_.empty() ? kNever : events_.begin()->first;
    const Waiting* first = nullptr;
    Time real = event;  // when something can come of it
    for (const auto& [tid, waiting] : waiting_) {
        if (first == nullptr || waiting.deadline < first->deadline) first = &waiting;
        if (!waiting.hollow) real = std::min(real, waiting.deadline);
    }
    const Time next = std::min(event, first->deadline);
    const Time limit = setup_.start + scenario_.limit;
    if (real == kNever) {
        end_ = "waits";
    } else if (event == kNever && real - last_activity_ > kQuiet) {
        end_ = "parked";
    } else if (next > limit) {
        now_ = limit;
        end_ = "limit";
    } else {
        now_ = std::max(now_, next);
    }
    story_.set_time(now_);
    if (!end_.empty()) return;
    if (event <= now_) {
        run_due_events();
    } else {
        expire(first->call);
    }
}

// The time of a sleep or of a poll is up.
void Gate::expire(Call call) {
    waiting_.erase(call.tid());
    runner_ = call.tid();
    if (call.shape->service == Service::poll) {
        std::vector<pollfd> fds = polled(call);
        for (pollfd& entry : fds)
            entry.revents = 0;
        ProcessMemory(call.tid()).write(call.argument(0), fds.data(), fds.size() * sizeof(pollfd));
    }
    answer(call, 0);
}

}  // namespace rvd::lab

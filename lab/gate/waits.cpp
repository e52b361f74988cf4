// The handlers of calls that wait or read a clock.
#include <errno.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "lab/gate/calls.h"

namespace rvd::lab {

namespace {

// The monotonic clock at the start of a run.
constexpr Time kUptime = 20 * kSecond;

Time from_timespec(const timespec& time) {
    return time.tv_sec * kSecond + time.tv_nsec;
}

}  // namespace

void Calls::handle_sleep(const Call& call) {
    if (call.name() == "pause") return scheduler.wait_in(call, kNever);
    const bool has_clock_id = call.name() == "clock_nanosleep";
    timespec span{};
    if (!call.memory().read(call.argument(has_clock_id ? 2 : 0), &span, sizeof(span)))
        return daemon.answer(call, -EFAULT);
    Time deadline = scheduler.now() + from_timespec(span);
    if (has_clock_id && (call.argument(1) & TIMER_ABSTIME) != 0) {
        deadline = from_timespec(span);
        if (call.argument(0) != CLOCK_REALTIME) deadline += scheduler.start() - kUptime;
    }
    scheduler.wait_in(call, deadline);
    const bool alone = scheduler.threads().size() == 1;
    if (alone && backend.on_sleep) backend.on_sleep(deadline - scheduler.now());
}

std::vector<pollfd> Calls::polled(const Call& call) const {
    std::vector<pollfd> fds(call.argument(1));
    call.memory().read(call.argument(0), fds.data(), fds.size() * sizeof(pollfd));
    return fds;
}

// After a hang-up a node reports POLLHUP once its input is read, and nothing else, unlike a socket.
short Calls::ready(const pollfd& entry) const {
    if (entry.fd < 0) return 0;
    const Links::Link* link = links.find(entry.fd);
    if (link != nullptr && !link->hung_up())
        return static_cast<short>(entry.events & (link->unread() > 0 ? POLLIN | POLLOUT : POLLOUT));
    const ScopedFd file(daemon.copy_fd(entry.fd));
    if (!file.valid()) return POLLNVAL;
    pollfd real = {file.get(), entry.events, 0};
    poll(&real, 1, 0);
    int unread = 0;
    ioctl(file.get(), FIONREAD, &unread);
    return link != nullptr && unread == 0 ? POLLHUP : real.revents;
}

bool Calls::finish_poll(const Call& call) {
    std::vector<pollfd> fds = polled(call);
    int64_t count = 0;
    for (pollfd& entry : fds) {
        entry.revents = ready(entry);
        count += entry.revents != 0;
    }
    if (count == 0) return false;
    answer_with_record(call, 0, fds.data(), fds.size() * sizeof(pollfd), count);
    return true;
}

void Calls::handle_poll(const Call& call) {
    Time timeout = kNever;
    if (call.name() == "ppoll") {
        timespec span{};
        if (call.argument(2) != 0) {
            call.memory().read(call.argument(2), &span, sizeof(span));
            timeout = from_timespec(span);
        }
    } else if (static_cast<int>(call.argument(2)) >= 0) {
        timeout = static_cast<int>(call.argument(2)) * kMillisecond;
    }
    links.send_all_packets();
    if (finish_poll(call)) return;
    if (timeout == 0) return daemon.answer(call, 0);
    scheduler.wait_in(call, timeout == kNever ? kNever : scheduler.now() + timeout);
    const std::vector<pollfd> fds = polled(call);
    const bool for_hang_up = timeout == kNever && !fds.empty() && (fds[0].events & POLLIN) == 0;
    if (for_hang_up && backend.on_wait) backend.on_wait();
}

void Calls::expire(const Call& call) {
    if (call.info->handler != &Calls::handle_poll) return daemon.answer(call, 0);
    std::vector<pollfd> fds = polled(call);
    for (pollfd& entry : fds)
        entry.revents = 0;
    answer_with_record(call, 0, fds.data(), fds.size() * sizeof(pollfd));
}

void Calls::handle_clock(const Call& call) {
    const Time now = scheduler.now();
    if (call.name() == "time") {
        const time_t seconds = now / kSecond;
        return answer_with_record(call, 0, &seconds, call.argument(0) != 0 ? sizeof(seconds) : 0,
                                  seconds);
    }
    if (call.name() == "gettimeofday") {
        const timeval time = {now / kSecond, now % kSecond / 1000};
        return answer_with_record(call, 0, &time, sizeof(time));
    }
    const auto which = static_cast<clockid_t>(call.argument(0));
    if (which == CLOCK_PROCESS_CPUTIME_ID || which == CLOCK_THREAD_CPUTIME_ID)
        return daemon.continue_call(call);
    const bool wall = which == CLOCK_REALTIME || which == CLOCK_REALTIME_COARSE;
    const Time reported = wall ? now : now - scheduler.start() + kUptime;
    const timespec time = {reported / kSecond, reported % kSecond};
    answer_with_record(call, 1, &time, sizeof(time));
}

}  // namespace rvd::lab

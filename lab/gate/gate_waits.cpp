// What the daemon waits for at the gate, and the time that passes meanwhile.

#include <linux/sockios.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "lab/gate/gate.h"
#include "lab/modem/memory.h"

namespace rvd::lab {

namespace {

// The monotonic clocks: the phone has been up for a while when a run begins.
constexpr Time kUptime = 20 * kSecond;

Time from_timespec(const timespec& time) {
    return time.tv_sec * kSecond + time.tv_nsec;
}

}  // namespace

void Gate::hold(const Call& call, Time deadline, bool hollow) {
    waiting_.emplace(call.tid(), Waiting{call, deadline, hollow});
    if (runner_ == call.tid()) runner_ = 0;
}

std::vector<pollfd> Gate::polled(const Call& call) const {
    std::vector<pollfd> fds(call.argument(1));
    ProcessMemory(call.tid()).read(call.argument(0), fds.data(), fds.size() * sizeof(pollfd));
    return fds;
}

// Answers for the kernel where one of the descriptors is ready. A node that hung up shows that, and
// input only while there is some: not the end of file that a socket would show.
bool Gate::poll_ready(const Call& call) {
    std::vector<pollfd> fds = polled(call);
    int64_t count = 0;
    for (pollfd& entry : fds) {
        entry.revents = 0;
        if (entry.fd < 0) continue;
        const Link* link = link_at(entry.fd);
        int unread = 0;
        if (link != nullptr && !link->hung) {
            ioctl(link->fd, SIOCOUTQ, &unread);
            entry.revents =
                    static_cast<short>(entry.events & (unread > 0 ? POLLIN | POLLOUT : POLLOUT));
        } else if (const int fd = duplicate(entry.fd); fd < 0) {
            entry.revents = POLLNVAL;
        } else {
            pollfd real = {fd, entry.events, 0};
            poll(&real, 1, 0);
            ioctl(fd, FIONREAD, &unread);
            if (link != nullptr && unread == 0) real.revents = POLLHUP;
            entry.revents = real.revents;
            close(fd);
        }
        count += entry.revents != 0;
    }
    if (count == 0) return false;
    ProcessMemory(call.tid()).write(call.argument(0), fds.data(), fds.size() * sizeof(pollfd));
    answer(call, count);
    return true;
}

void Gate::do_poll(const Call& call) {
    Time timeout = kNever;
    if (std::string(call.shape->name) == "ppoll") {
        timespec span{};
        if (call.argument(2) != 0) {
            ProcessMemory(call.tid()).read(call.argument(2), &span, sizeof(span));
            timeout = from_timespec(span);
        }
    } else if (static_cast<int>(call.argument(2)) >= 0) {
        timeout = static_cast<int>(call.argument(2)) * kMillisecond;
    }
    pump(Node::boot);
    pump(Node::dump);
    if (poll_ready(call)) return;
    if (timeout == 0) return answer(call, 0);
    hold(call, timeout == kNever ? kNever : now_ + timeout);
    const std::vector<pollfd> fds = polled(call);
    if (timeout == kNever && !fds.empty() && (fds[0].events & POLLIN) == 0 && on_wait) on_wait();
}

void Gate::do_sleep(const Call& call) {
    const std::string name = call.shape->name;
    if (name == "pause") return hold(call, kNever);
    const bool chosen = name == "clock_nanosleep";
    timespec span{};
    if (!ProcessMemory(call.tid()).read(call.argument(chosen ? 2 : 0), &span, sizeof(span)))
        return answer(call, -EFAULT);
    Time deadline = now_ + from_timespec(span);
    if (chosen && (call.argument(1) & TIMER_ABSTIME) != 0) {
        deadline = from_timespec(span);
        if (call.argument(0) != CLOCK_REALTIME) deadline += setup_.start - kUptime;
    }
    const bool helper = call.tid() != process_.pid;
    hold(call, deadline, helper && !idle_.insert(call.tid()).second);
    const auto hollow = std::count_if(waiting_.begin(), waiting_.end(),
                                      [](const auto& waiting) { return waiting.second.hollow; });
    if (!helper && threads_.size() == 1 + static_cast<size_t>(hollow) && on_sleep)
        on_sleep(deadline - now_);
}

void Gate::do_clock(const Call& call) {
    ProcessMemory memory(call.tid());
    const std::string name = call.shape->name;
    bool written = true;
    if (name == "time") {
        const time_t seconds = now_ / kSecond;
        if (call.argument(0) != 0)
            written = memory.write(call.argument(0), &seconds, sizeof(seconds));
        return answer(call, written ? seconds : -EFAULT);
    }
    if (name == "gettimeofday") {
        const timeval time = {now_ / kSecond, now_ % kSecond / 1000};
        written = memory.write(call.argument(0), &time, sizeof(time));
        return answer(call, written ? 0 : -EFAULT);
    }
    const auto clock = static_cast<clockid_t>(call.argument(0));
    if (clock == CLOCK_PROCESS_CPUTIME_ID || clock == CLOCK_THREAD_CPUTIME_ID) return proceed(call);
    const bool wall = clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
    const Time shown = wall ? now_ : now_ - setup_.start + kUptime;
    const timespec time = {shown / kSecond, shown % kSecond};
    written = memory.write(call.argument(1), &time, sizeof(time));
    answer(call, written ? 0 : -EFAULT);
}

}  // namespace rvd::lab

// What the gate does with each system call.

#include <errno.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <linux/sched.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <optional>

#include "bootdump/lnkm.h"
#include "lab/gate/gate.h"
#include "lab/modem/memory.h"

namespace rvd::lab {

namespace {

constexpr int64_t kPlentyMb = 20'000;
constexpr long kBlock = 1024;  // so that whole megabytes stay whole in any arithmetic
constexpr int kRingReadAll = 3;
constexpr int kRingSize = 10;

bool under(const std::string& path, const std::string& prefix) {
    return path.compare(0, prefix.size(), prefix) == 0;
}

std::optional<Node> node_at(const std::string& path) {
    if (!under(path, "/dev/")) return {};
    if (path.find("_boot") != std::string::npos) return Node::boot;
    if (path.find("_ramdump") != std::string::npos) return Node::dump;
    return {};
}

}  // namespace

void Gate::handle(const Call& call) {
    switch (call.shape->service) {
        case Service::poll:
        case Service::sleep:
        case Service::clock:
        case Service::thread_start:
            break;
        default:
            last_activity_ = now_;
            idle_.erase(call.tid());
    }
    if (apply_fault(call)) return;
    switch (call.shape->service) {
        case Service::look:
            if (call.shape->watch == Watch::always) check_path(call, path_of(call));
            return proceed(call);
        case Service::open:
            return do_open(call);
        case Service::ioctl:
            return do_ioctl(call);
        case Service::syslog:
            return do_syslog(call);
        case Service::statfs:
            return do_statfs(call);
        case Service::identity:
            return do_identity(call);
        case Service::sync:
            story_.request("kernel", "sync");
            return answer(call, 0);
        case Service::poll:
            return do_poll(call);
        case Service::sleep:
            return do_sleep(call);
        case Service::clock:
            return do_clock(call);
        case Service::clone:
            return do_clone(call);
        case Service::thread_start:
        case Service::other:
            return proceed(call);
        case Service::thread_end:
            threads_.erase(call.tid());
            runner_ = 0;
            return proceed(call);
        case Service::write:
            return do_write(call);
    }
}

void Gate::answer(const Call& call, int64_t result) {
    constexpr int64_t kLastErrno = 4095;
    seccomp_notif_resp response{};
    response.id = call.raw.id;
    if (result < 0 && result >= -kLastErrno) {
        response.error = static_cast<int32_t>(result);
    } else {
        response.val = result;
    }
    ioctl(process_.listener, SECCOMP_IOCTL_NOTIF_SEND, &response);
}

void Gate::proceed(const Call& call) {
    seccomp_notif_resp response{};
    response.id = call.raw.id;
    response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    ioctl(process_.listener, SECCOMP_IOCTL_NOTIF_SEND, &response);
}

// Before the daemon's own code runs, which opens the kernel log before anything else, calls are
// counted and left alone: a C library that can't start says nothing about the daemon.
bool Gate::apply_fault(const Call& call) {
    const std::string family = call.shape->family;
    in_main_ = in_main_ || path_of(call) == "/dev/kmsg";
    const int time = ++times_[family];
    if (in_main_ && on_call) on_call(family, time, path_of(call));
    const Fault* due = nullptr;
    for (const Fault& fault : scenario_.faults) {
        if (fault.call != family) continue;
        if (fault.path != "*" && !matches(fault.path, path_of(call))) continue;
        if (!in_main_) {
            fault.turn.seen++;
        } else if (fault.turn.takes() && due == nullptr) {
            due = &fault;
        }
    }
    if (due == nullptr) return false;
    if (on_fault) on_fault();
    story_.tell("kernel", "daemon",
                due->call + " " + path_of(call) + ": " +
                        (due->hang_up ? "hang-up"
                         : due->cut   ? "cut short"
                                      : due->error));
    if (due->hang_up) {
        if (Link* link = link_at(fd_of(call))) hang_up(link->node);
        return false;
    }
    if (call.shape->service == Service::ioctl && link_at(fd_of(call)) != nullptr)
        modem_->lost(call.argument(1));
    if (due->cut) {
        transfer_part(call, static_cast<size_t>(*due->cut));
    } else if (std::string(call.shape->name) == "brk") {
        answer(call, 0);  // it has no other way to say so
    } else {
        answer(call, -errno_number(due->error));
    }
    return true;
}

// Reads or writes less than was asked for, in the daemon's stead: the file position is shared.
void Gate::transfer_part(const Call& call, size_t size) {
    ProcessMemory memory(call.tid());
    std::vector<char> bytes(std::min<size_t>(size, call.argument(2)));
    const bool reads = std::string(call.shape->name) == "read";
    // Of a packet that was cut on its way into the link nothing reaches the other side.
    if (!reads && link_at(static_cast<int>(call.argument(0))) != nullptr)
        return answer(call, static_cast<int64_t>(bytes.size()));
    const int fd = duplicate(static_cast<int>(call.argument(0)));
    ssize_t result = 0;
    if (!bytes.empty() && reads) {
        result = read(fd, bytes.data(), bytes.size());
        if (result > 0) memory.write(call.argument(1), bytes.data(), static_cast<size_t>(result));
    } else if (!bytes.empty() && memory.read(call.argument(1), bytes.data(), bytes.size())) {
        result = write(fd, bytes.data(), bytes.size());
    }
    answer(call, result < 0 ? -errno : result);
    close(fd);
}

std::string Gate::path_of(const Call& call) const {
    std::string path;
    if (call.shape->path >= 0)
        path = ProcessMemory(call.tid()).text(call.argument(call.shape->path));
    if (path.empty() && fd_of(call) >= 0) path = path_of_fd(fd_of(call));
    return path;
}

// The descriptor that a call is about, or -1; of several that are polled, the first.
int Gate::fd_of(const Call& call) const {
    if (call.shape->service == Service::poll) {
        const std::vector<pollfd> fds = polled(call);
        return fds.empty() ? -1 : fds[0].fd;
    }
    return call.shape->fd < 0 ? -1 : static_cast<int>(call.argument(call.shape->fd));
}

int Gate::duplicate(int fd) const {
    return static_cast<int>(syscall(SYS_pidfd_getfd, process_.pidfd, fd, 0));
}

std::string Gate::path_of_fd(int fd) const {
    for (const Link& link : links_) {
        if (link.daemon_fd == fd) return std::string("/dev/") + node_name(link.node);
    }
    for (const KernelLog& log : kernel_logs_) {
        if (log.daemon_fd == fd) return "/dev/kmsg";
    }
    char target[4096];
    const ssize_t n =
            readlink(format("/proc/%d/fd/%d", process_.pid, fd).c_str(), target, sizeof(target));
    const std::string path(target, n > 0 ? static_cast<size_t>(n) : 0);
    return under(path, phone_.root()) ? path.substr(phone_.root().size()) : path;
}

// The daemon's own places. Anything else it changes is a fault of its own.
void Gate::check_path(const Call& call, const std::string& path) {
    static const char* const places[] = {
            "/data/vendor/log/rvd", "/mnt/vendor/", kWakeLockPath, kWakeUnlockPath, kSimCountPath,
            kPropertyDir,           kAndroidLog,    "/dev/null",   "/proc/",        "/tmp/tsan."};
    const char* coverage = getenv("GCOV_PREFIX");
    const bool own = std::any_of(std::begin(places), std::end(places),
                                 [&](const char* place) { return under(path, place); });
    if (!own && (coverage == nullptr || !under(path, coverage)))
        story_.violation(std::string(call.shape->family) + " changes " + path);
}

void Gate::do_open(const Call& call) {
    const std::string path = path_of(call);
    const auto& missing = scenario_.missing;
    if (std::find(missing.begin(), missing.end(), path) != missing.end()) return proceed(call);
    if (path == "/dev/kmsg") return open_kernel_log(call);
    if (const auto node = node_at(path)) return open_node(call, *node);
    const uint64_t flags = call.argument(call.shape->path + 1);
    if ((flags & (O_WRONLY | O_RDWR | O_CREAT)) != 0) check_path(call, path);
    proceed(call);
}

void Gate::do_ioctl(const Call& call) {
    const Link* link = link_at(static_cast<int>(call.argument(0)));
    if (link == nullptr) return proceed(call);
    ProcessMemory memory(call.tid());
    served_ = &call;
    const int64_t result = modem_->request(link->node, call.argument(1), call.argument(2), memory);
    served_ = nullptr;
    if (gone_) return hold(call, kNever);
    answer(call, result);
}

void Gate::do_syslog(const Call& call) {
    const int action = static_cast<int>(call.argument(0));
    if (action == kRingSize) return answer(call, 1 << 20);
    if (action != kRingReadAll) {
        story_.violation(format("kernel log action %d", action));
        return answer(call, -EINVAL);
    }
    std::string ring = story_.ring();
    if (scenario_.ring) {
        const auto size = static_cast<size_t>(*scenario_.ring);
        for (int line = 0; ring.size() < size; line++)
            ring += format("<6>[%12.6f] filler: line %d of the kernel's log\n", 0.0, line);
        ring.resize(size);
    }
    const size_t room = std::min<size_t>(ring.size(), call.argument(2));
    const char* latest = ring.data() + ring.size() - room;
    story_.tell("kernel", "daemon", "log ring, " + human_size(room));
    const bool written = ProcessMemory(call.tid()).write(call.argument(1), latest, room);
    answer(call, written ? static_cast<int64_t>(room) : -EFAULT);
}

void Gate::do_statfs(const Call& call) {
    const std::string path = path_of(call);
    struct statfs answer_record {};
    if (statfs(phone_.path(path).c_str(), &answer_record) != 0) return answer(call, -errno);
    int64_t megabytes = kPlentyMb;
    size_t longest = 0;
    for (const auto& [prefix, free] : scenario_.free_mb) {
        if (!under(path, prefix) || prefix.size() < longest) continue;
        longest = prefix.size();
        megabytes = free;
    }
    answer_record.f_bsize = kBlock;
    answer_record.f_bfree = static_cast<fsblkcnt_t>(megabytes * (1 << 20) / kBlock);
    answer_record.f_bavail = answer_record.f_bfree - answer_record.f_bfree / 20;
    answer_record.f_blocks = answer_record.f_bfree * 4;
    const bool written = ProcessMemory(call.tid())
                                 .write(call.argument(1), &answer_record, sizeof(answer_record));
    answer(call, written ? 0 : -EFAULT);
}

void Gate::do_identity(const Call& call) {
    const std::string name = call.shape->name;
    std::string words = name;
    if (name == "prctl") words += format(" keepcaps %llu", call.raw.data.args[1]);
    if (name == "setuid") words += format(" %llu", call.raw.data.args[0]);
    if (name == "capset") {
        __user_cap_data_struct data[2] = {};
        ProcessMemory(call.tid()).read(call.argument(1), data, sizeof(data));
        words += format(" effective=%08x%08x permitted=%08x%08x inheritable=%08x%08x",
                        data[1].effective, data[0].effective, data[1].permitted, data[0].permitted,
                        data[1].inheritable, data[0].inheritable);
    }
    const bool about_file = call.shape->path >= 0;
    if (!about_file) story_.request("kernel", words);
    if (Phone::real_root() ||
        (about_file && access(phone_.path(path_of(call)).c_str(), F_OK) != 0)) {
        proceed(call);
    } else {
        answer(call, 0);
    }
}

void Gate::do_clone(const Call& call) {
    uint64_t flags = call.argument(0);
    if (std::string(call.shape->name) == "clone3")
        ProcessMemory(call.tid()).read(call.argument(0), &flags, sizeof(flags));
    if ((flags & CLONE_THREAD) != 0) births_++;
    proceed(call);
}

// The virtual disk: the write that crosses its end is short, and those after it find no room.
void Gate::do_write(const Call& call) {
    if (!scenario_.full_after || !under(path_of(call), "/data/")) return proceed(call);
    const auto capacity = static_cast<uint64_t>(*scenario_.full_after);
    const uint64_t room = capacity - std::min(disk_used_, capacity);
    const uint64_t size = call.argument(2);
    disk_used_ += std::min(size, room);
    if (size <= room) return proceed(call);
    if (room == 0) return answer(call, -ENOSPC);
    transfer_part(call, room);
}

}  // namespace rvd::lab

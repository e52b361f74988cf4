#include "lab/gate/daemon.h"

#include <elf.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <seccomp.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

// Missing in older kernel headers. Wakes the daemon's thread synchronously, on the same CPU.
#ifndef SECCOMP_IOCTL_NOTIF_SET_FLAGS
#define SECCOMP_IOCTL_NOTIF_SET_FLAGS SECCOMP_IOW(4, __u64)
#define SECCOMP_USER_NOTIF_FD_SYNC_WAKE_UP (1UL << 0)
#endif

namespace rvd::lab {

namespace {

// Exit statuses of a child that failed before exec; any other is the errno of exec.
constexpr int kNoFilter = 200;
constexpr int kNoTrace = 201;

// The filter's listener in the child: the lowest free descriptor after the standard ones.
constexpr int kListener = 3;

// Installs the filter as the last step before exec. The lab fetches the listener while the child is
// stopped. Nothing may allocate after that: an intercepted call would never be answered.
void hand_over_calls(const Filter& filter) {
    signal(SIGPIPE, SIG_IGN);  // a device node never raises it
    const pid_t self = getpid();
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(kNoTrace);
    if (seccomp_load(filter.get()) != 0 || seccomp_notify_fd(filter.get()) != kListener)
        _exit(kNoFilter);
    kill(self, SIGSTOP);
}

// The child stops twice: before its exec and after it.
void await_stop(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSTOPPED(status)) return;
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
    if (code == kNoTrace) throw Unsupported("this machine does not let a process trace its child");
    if (code == kNoFilter)
        throw Unsupported("this kernel offers no seccomp user notification (Linux 5.5 or later)");
    throw Error(std::string("the daemon cannot be executed: ") +
                (code != 0 ? strerror(code) : "it was killed"));
}

// Removes the vDSO's address from the auxiliary vector, so that the C library reads the clock with
// system calls. The stack holds argc, argv, the environment and the auxiliary vector.
void disable_vdso(pid_t pid) {
    __ptrace_syscall_info info{};
    ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof(info), &info);
    const Memory memory(pid);
    uint64_t at = info.stack_pointer;
    const auto next = [&] {
        uint64_t word = 0;
        if (!memory.read(at, &word, sizeof(word))) throw_errno("cannot read the daemon's stack");
        at += sizeof(word);
        return word;
    };
    const uint64_t arguments = next();
    at += (arguments + 1) * sizeof(uint64_t);
    while (next() != 0) {
    }
    for (uint64_t type = next(); type != AT_NULL; next(), type = next()) {
        const uint64_t ignore = AT_IGNORE;
        if (type == AT_SYSINFO_EHDR && !memory.write(at - sizeof(type), &ignore, sizeof(ignore)))
            throw_errno("cannot write the daemon's stack");
    }
}

}  // namespace

void Daemon::start(const Phone& phone, const Filter& filter, bool virtual_time) {
    pid_ = fork();
    if (pid_ < 0) throw_errno("cannot fork");
    if (pid_ == 0) phone.become_daemon([&] { hand_over_calls(filter); });
    await_stop(pid_);
    pidfd_.reset(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
    listener_.reset(copy_fd(kListener));
    if (!listener_.valid()) throw_errno("cannot intercept the daemon's system calls");
    ptrace(PTRACE_CONT, pid_, nullptr, nullptr);
    await_stop(pid_);
    if (virtual_time) disable_vdso(pid_);
    ptrace(PTRACE_DETACH, pid_, nullptr, nullptr);
    ioctl(listener(), SECCOMP_IOCTL_NOTIF_SET_FLAGS, SECCOMP_USER_NOTIF_FD_SYNC_WAKE_UP);
}

void Daemon::end() {
    if (pid_ >= 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    pid_ = -1;
    pidfd_.reset();
    listener_.reset();
}

bool Daemon::ended(int& status) {
    if (waitpid(pid_, &status, WNOHANG) != pid_) return false;
    pid_ = -1;
    return true;
}

bool Daemon::receive(seccomp_notif& notification) const {
    notification = {};
    return seccomp_notify_receive(listener(), &notification) == 0;
}

void Daemon::answer(const Call& call, int64_t result) const {
    constexpr int64_t kLastErrno = 4095;
    const bool error = result < 0 && result >= -kLastErrno;
    seccomp_notif_resp response = {call.raw.id, error ? 0 : result,
                                   error ? static_cast<int32_t>(result) : 0, 0};
    seccomp_notify_respond(listener(), &response);
}

void Daemon::continue_call(const Call& call) const {
    seccomp_notif_resp response = {call.raw.id, 0, 0, SECCOMP_USER_NOTIF_FLAG_CONTINUE};
    seccomp_notify_respond(listener(), &response);
}

int Daemon::add(seccomp_notif_addfd add, const Call& call, int fd) const {
    add.id = call.raw.id;
    add.srcfd = static_cast<uint32_t>(fd);
    const int number = ioctl(listener(), SECCOMP_IOCTL_NOTIF_ADDFD, &add);
    if (number < 0) throw_errno("cannot give the daemon a descriptor");
    return number;
}

int Daemon::install_fd(const Call& call, int fd) const {
    const uint64_t flags = call.argument(call.info->path + 1);
    fcntl(fd, F_SETFL, flags & O_NONBLOCK);
    seccomp_notif_addfd added{};
    added.flags = SECCOMP_ADDFD_FLAG_SEND;
    added.newfd_flags = flags & O_CLOEXEC;
    return add(added, call, fd);
}

void Daemon::replace_fd(const Call& request, int daemon_fd, int fd) const {
    seccomp_notif_addfd added{};
    added.flags = SECCOMP_ADDFD_FLAG_SETFD;
    added.newfd = static_cast<uint32_t>(daemon_fd);
    added.newfd_flags = O_CLOEXEC;
    add(added, request, fd);
}

int Daemon::copy_fd(int daemon_fd) const {
    return static_cast<int>(syscall(SYS_pidfd_getfd, pidfd(), daemon_fd, 0));
}

std::string Daemon::fd_path(int daemon_fd) const {
    return fmt::format("/proc/{}/fd/{}", pid_, daemon_fd);
}

bool Daemon::has_thread(pid_t tid) const {
    return access(fmt::format("/proc/{}/task/{}", pid_, tid).c_str(), F_OK) == 0;
}

bool Daemon::waits_for_thread(pid_t tid) const {
    const std::string path = fmt::format("/proc/{}/task/{}/syscall", pid_, tid);
    return read_file(path).find(fmt::format("{} ", SYS_futex)) == 0;
}

}  // namespace rvd::lab

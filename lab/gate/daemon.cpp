#include "lab/gate/daemon.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <seccomp.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

// Newer than some headers: the thread that is answered runs at once, on the processor that
// answered.
#ifndef SECCOMP_IOCTL_NOTIF_SET_FLAGS
#define SECCOMP_IOCTL_NOTIF_SET_FLAGS SECCOMP_IOW(4, __u64)
#define SECCOMP_USER_NOTIF_FD_SYNC_WAKE_UP (1UL << 0)
#endif

namespace rvd::lab {

void Daemon::start(const std::string& root, const std::vector<std::string>& arguments,
                   const std::vector<Rule>& rules, bool virtual_time) {
    process_ = launch(root, arguments, rules, virtual_time);
    ioctl(process_.listener, SECCOMP_IOCTL_NOTIF_SET_FLAGS, SECCOMP_USER_NOTIF_FD_SYNC_WAKE_UP);
}

void Daemon::end() {
    if (process_.listener < 0) return;
    if (process_.pid >= 0) {
        kill(process_.pid, SIGKILL);
        waitpid(process_.pid, nullptr, 0);
    }
    close(process_.pidfd);
    close(process_.listener);
    process_ = Process();
}

bool Daemon::ended(int& status) {
    if (waitpid(process_.pid, &status, WNOHANG) != process_.pid) return false;
    process_.pid = -1;
    return true;
}

bool Daemon::receive(seccomp_notif& notification) const {
    memset(&notification, 0, sizeof(notification));
    return seccomp_notify_receive(process_.listener, &notification) == 0;
}

void Daemon::answer(const Call& call, int64_t result) const {
    constexpr int64_t kLastErrno = 4095;
    seccomp_notif_resp response{};
    response.id = call.raw.id;
    if (result < 0 && result >= -kLastErrno) {
        response.error = static_cast<int32_t>(result);
    } else {
        response.val = result;
    }
    seccomp_notify_respond(process_.listener, &response);
}

void Daemon::proceed(const Call& call) const {
    seccomp_notif_resp response{};
    response.id = call.raw.id;
    response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    seccomp_notify_respond(process_.listener, &response);
}

int Daemon::give(const Call& call, int fd) const {
    const uint64_t flags = call.argument(call.shape->path + 1);
    fcntl(fd, F_SETFL, flags & O_NONBLOCK);
    seccomp_notif_addfd add{};
    add.id = call.raw.id;
    add.flags = SECCOMP_ADDFD_FLAG_SEND;
    add.srcfd = static_cast<uint32_t>(fd);
    add.newfd_flags = flags & O_CLOEXEC;
    const int number = ioctl(process_.listener, SECCOMP_IOCTL_NOTIF_ADDFD, &add);
    if (number < 0) fail_errno("cannot give the daemon a descriptor");
    return number;
}

void Daemon::replace(const Call& served, int daemon_fd, int fd) const {
    seccomp_notif_addfd add{};
    add.id = served.raw.id;
    add.flags = SECCOMP_ADDFD_FLAG_SETFD;
    add.srcfd = static_cast<uint32_t>(fd);
    add.newfd = static_cast<uint32_t>(daemon_fd);
    add.newfd_flags = O_CLOEXEC;
    if (ioctl(process_.listener, SECCOMP_IOCTL_NOTIF_ADDFD, &add) < 0)
        fail_errno("cannot replace a descriptor of the daemon");
}

int Daemon::duplicate(int daemon_fd) const {
    return static_cast<int>(syscall(SYS_pidfd_getfd, process_.pidfd, daemon_fd, 0));
}

std::string Daemon::file_of(int daemon_fd) const {
    char target[4096];
    const std::string link = fmt::format("/proc/{}/fd/{}", process_.pid, daemon_fd);
    const ssize_t n = readlink(link.c_str(), target, sizeof(target));
    return {target, n > 0 ? static_cast<size_t>(n) : 0};
}

ino_t Daemon::inode_of(int daemon_fd) const {
    return inode_of_path(fmt::format("/proc/{}/fd/{}", process_.pid, daemon_fd));
}

bool Daemon::has_thread(pid_t tid) const {
    return access(fmt::format("/proc/{}/task/{}", process_.pid, tid).c_str(), F_OK) == 0;
}

bool Daemon::waits_for_thread(pid_t tid) const {
    const std::string path = fmt::format("/proc/{}/task/{}/syscall", process_.pid, tid);
    return read_file(path).find(fmt::format("{} ", SYS_futex)) == 0;
}

ino_t inode_of_path(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

}  // namespace rvd::lab

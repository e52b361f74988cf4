// The daemon's process. Under its seccomp filter it stops at each intercepted system call until the
// lab answers it or lets it continue.
#pragma once

#include <linux/seccomp.h>
#include <sys/types.h>

#include <string>

#include "lab/gate/table.h"
#include "lab/modem/modem.h"
#include "lab/phone/phone.h"
#include "util/ScopedFd.h"

namespace rvd::lab {

// A system call that has not been answered yet.
struct Call {
    seccomp_notif raw;
    const SyscallInfo* info;

    uint64_t argument(int i) const { return raw.data.args[i]; }
    pid_t tid() const { return static_cast<pid_t>(raw.pid); }
    Memory memory() const { return Memory(tid()); }
    const std::string& name() const { return info->name; }
};

class Daemon {
  public:
    ~Daemon() { end(); }

    // `virtual_time` disables the vDSO, whose clock bypasses the filter. Throws Error.
    void start(const Phone& phone, const Filter& filter, bool virtual_time);
    void end();  // kills the process and closes its descriptors
    bool ended(int& status);

    pid_t pid() const { return pid_; }
    int pidfd() const { return pidfd_.get(); }
    int listener() const { return listener_.get(); }  // of its intercepted calls

    bool receive(seccomp_notif& notification) const;
    void answer(const Call& call, int64_t result) const;
    void continue_call(const Call& call) const;

    // Puts a descriptor of this process into the daemon: as the result of its open(), or in place
    // of another descriptor while one of its calls is pending.
    int install_fd(const Call& call, int fd) const;
    void replace_fd(const Call& request, int daemon_fd, int fd) const;

    // Duplicates one of its descriptors into this process; the link to it in /proc.
    int copy_fd(int daemon_fd) const;
    std::string fd_path(int daemon_fd) const;

    // Whether the process has this thread; whether the thread waits on a futex.
    bool has_thread(pid_t tid) const;
    bool waits_for_thread(pid_t tid) const;

  private:
    int add(seccomp_notif_addfd add, const Call& call, int fd) const;

    pid_t pid_ = -1;
    ScopedFd pidfd_, listener_;
};

}  // namespace rvd::lab

// The daemon's process, seen from outside: started under a filter, it stops at each system call
// that the filter names, and goes on once that is answered.
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

    // With `virtual_time` no clock of the daemon's bypasses the filter. Throws Error.
    void start(const Phone& phone, const Filter& filter, bool virtual_time);
    void end();  // kills the process and closes its descriptors
    bool ended(int& status);

    pid_t pid() const { return pid_; }
    int pidfd() const { return pidfd_.get(); }
    int listener() const { return listener_.get(); }  // where its calls come in

    bool receive(seccomp_notif& notification) const;
    void answer(const Call& call, int64_t result) const;
    void continue_call(const Call& call) const;

    // Gives it a descriptor of this process: as the result of its open, or in place of another
    // while one of its calls is served.
    int install_fd(const Call& call, int fd) const;
    void replace_fd(const Call& request, int daemon_fd, int fd) const;

    // One of its descriptors, as one of this process; and the path by which /proc shows it.
    int copy_fd(int daemon_fd) const;
    std::string fd_path(int daemon_fd) const;

    // Whether a thread is one of its own; whether it waits for another one.
    bool has_thread(pid_t tid) const;
    bool waits_for_thread(pid_t tid) const;

  private:
    int add(seccomp_notif_addfd add, const Call& call, int fd) const;

    pid_t pid_ = -1;
    ScopedFd pidfd_, listener_;
};

}  // namespace rvd::lab

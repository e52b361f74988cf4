// The daemon's process, seen from outside: it is started under a filter, stops at each system call
// that the filter names, and goes on once that is answered.
#pragma once

#include <linux/seccomp.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "lab/gate/table.h"
#include "lab/modem/modem.h"
#include "lab/phone/launch.h"

namespace rvd::lab {

// A system call that has not been answered yet.
struct Call {
    seccomp_notif raw;
    const CallShape* shape;

    uint64_t argument(int i) const { return raw.data.args[i]; }
    pid_t tid() const { return static_cast<pid_t>(raw.pid); }
    Memory memory() const { return Memory(tid()); }
    std::string_view name() const { return shape->name; }
};

class Daemon {
  public:
    Daemon() = default;
    ~Daemon() { end(); }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    void start(const std::string& root, const std::vector<std::string>& arguments,
               const std::vector<Rule>& rules, bool virtual_time);
    void end();  // nothing of it is left
    bool ended(int& status);

    pid_t pid() const { return process_.pid; }
    int listener() const { return process_.listener; }
    int pidfd() const { return process_.pidfd; }

    // The next call that it stops at.
    bool receive(seccomp_notif& notification) const;
    void answer(const Call& call, int64_t result) const;
    void proceed(const Call& call) const;

    // Adds a descriptor of this process to it: as the result of its open, or in place of another
    // while one of its calls is served.
    int give(const Call& call, int fd) const;
    void replace(const Call& served, int daemon_fd, int fd) const;

    // One of its descriptors, as one of this process; the file behind it; that file's number.
    int duplicate(int daemon_fd) const;
    std::string file_of(int daemon_fd) const;
    ino_t inode_of(int daemon_fd) const;

    // Whether a thread is one of its own; whether it waits for another one.
    bool has_thread(pid_t tid) const;
    bool waits_for_thread(pid_t tid) const;

  private:
    Process process_;
};

ino_t inode_of_path(const std::string& path);

}  // namespace rvd::lab

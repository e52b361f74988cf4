// The gate between the daemon and its kernel: takes the system calls of calls.h, carries what is
// said on the driver's nodes to the models, and, unless the clock is the real one, owns time. Then
// one thread of the daemon runs at a time, and the clock moves only when all of them wait.
#pragma once

#include <linux/seccomp.h>
#include <poll.h>

#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "lab/gate/calls.h"
#include "lab/phone/phone.h"
#include "lab/run/stage.h"
#include "lab/run/story.h"

namespace rvd::lab {

class Gate : public RunStage {
  public:
    struct Setup {
        Time start;
        bool real_time;
        std::chrono::seconds patience;  // wall-clock time after which a run has failed
        bool learn = false;             // every call is taken, and told to on_call
        int jitter = 0;                 // microseconds between two reads of what the daemon says
    };

    Gate(const Scenario& scenario, const Phone& phone, Story& story, Setup setup);
    ~Gate() override;
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    void start_daemon() override;
    bool reboot() override;
    std::string serve() override;
    std::map<int, std::string> descriptors() const override;

    pid_t daemon() const override { return process_.pid; }
    void recount_faults() override;

    Time now() const override { return now_; }
    void hang_up(Node node) override;
    void end_hang_up() override;
    void flush(Node node) override;
    void pump(Node node) override;
    void panic() override;

  private:
    // One end of a node's descriptor; the other is the daemon's.
    struct Link {
        Node node;
        int fd;
        int daemon_fd;
        ino_t inode;  // of the daemon's end
        bool hung = false, pending = false;
        Packet out = {};
    };

    // A call that has not been answered yet.
    struct Call {
        seccomp_notif raw;
        const CallShape* shape;
        uint64_t argument(int i) const { return raw.data.args[i]; }
        pid_t tid() const { return static_cast<pid_t>(raw.pid); }
    };

    // A thread that sleeps or polls.
    struct Waiting {
        Call call;
        Time deadline;
        bool hollow;  // a helper that only ever sleeps, as a sanitizer's: nothing comes of it
    };

    // The loop.
    void wait_for_something();
    void take_notification();
    void schedule();
    void advance();
    void expire(Call call);
    bool answer_ready_polls();
    void reap();
    void end_daemon();
    void close_process();

    // Calls, in gate_calls.cpp.
    void handle(const Call& call);
    void answer(const Call& call, int64_t result);
    void proceed(const Call& call);
    bool apply_fault(const Call& call);
    void transfer_part(const Call& call, size_t size);
    void do_open(const Call& call);
    void do_ioctl(const Call& call);
    void do_syslog(const Call& call);
    void do_statfs(const Call& call);
    void do_identity(const Call& call);
    void do_clone(const Call& call);
    void do_write(const Call& call);
    void check_path(const Call& call, const std::string& path);
    std::string path_of(const Call& call) const;
    int fd_of(const Call& call) const;
    std::string path_of_fd(int fd) const;
    int duplicate(int fd) const;  // the daemon's, as one of this process

    // Time, in gate_waits.cpp.
    void hold(const Call& call, Time deadline, bool hollow = false);
    std::vector<pollfd> polled(const Call& call) const;
    bool poll_ready(const Call& call);
    void do_poll(const Call& call);
    void do_sleep(const Call& call);
    void do_clock(const Call& call);

    // Links, in gate_links.cpp.
    int open_pair(int& daemon_end) const;
    int give(const Call& call, int daemon_end);
    void open_node(const Call& call, Node node);
    void open_kernel_log(const Call& call);
    void renew(Link& link);
    Link* link_at(int daemon_fd);
    void drain();
    void jitter();
    void drain_kernel_log();
    void drain_link(size_t index);
    void pump_link(Link& link);

    const Phone& phone_;
    const Setup setup_;

    std::map<int, CallShape> shapes_;
    std::vector<Rule> rules_;
    Process process_;
    bool gone_ = false;  // the device is in upload mode: nothing is answered

    Time now_;
    Time last_activity_;
    std::chrono::steady_clock::time_point real_start_;

    std::set<pid_t> threads_;
    int births_ = 0;  // threads made and not yet seen
    pid_t runner_ = 0;
    std::map<pid_t, Call> queue_;
    std::map<pid_t, Waiting> waiting_;
    std::set<pid_t> idle_;  // did nothing since they slept

    std::vector<Link> links_;
    struct KernelLog {
        int fd, daemon_fd;
    };
    std::vector<KernelLog> kernel_logs_;
    const Call* served_ = nullptr;  // the request that is being answered
    Packet received_;
    std::map<std::string, int> times_;  // of each call, as faults count them
    bool in_main_ = false;
    uint64_t disk_used_ = 0;
};

}  // namespace rvd::lab

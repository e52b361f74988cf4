// The handlers of the daemon's intercepted system calls. A call is answered by the phone, a model
// or the virtual clock, fails as the scenario demands, or is left to the kernel.
#pragma once

#include <poll.h>

#include <map>
#include <string>
#include <vector>

#include "lab/gate/daemon.h"
#include "lab/gate/links.h"
#include "lab/gate/scheduler.h"
#include "lab/phone/phone.h"
#include "lab/run/backend.h"

namespace rvd::lab {

// What the handlers work with.
struct CallContext {
    const Scenario& scenario;
    const Phone& phone;
    Story& story;
    RunBackend& backend;
    Daemon& daemon;
    Scheduler& scheduler;
    Links& links;
};

class Calls : private CallContext {
  public:
    explicit Calls(const CallContext& scene) : CallContext(scene) {}

    void restart() { in_main_ = device_lost_ = false; }

    void handle(const Call& call);

    // The driver request that is being handled.
    const Call& request() const { return *request_; }

    // The device has gone to upload mode: the current request is never answered.
    void set_device_lost() { device_lost_ = true; }

    // Ends a poll if one of its descriptors is ready; ends any wait at its deadline.
    bool finish_poll(const Call& call);
    void expire(const Call& call);

    std::string path_of_fd(int fd) const;

    // The handlers in the table of calls.
    void handle_open(const Call& call);
    void handle_ioctl(const Call& call);
    void handle_syslog(const Call& call);
    void handle_statfs(const Call& call);
    void handle_identity(const Call& call);
    void handle_sync(const Call& call);
    void handle_write(const Call& call);
    void handle_poll(const Call& call);
    void handle_sleep(const Call& call);
    void handle_clock(const Call& call);
    void handle_clone(const Call& call);
    void end_thread(const Call& call);
    void check_and_continue(const Call& call);
    void pass_through(const Call& call) { daemon.continue_call(call); }

  private:
    bool inject_fault(const Call& call);
    const Fault* find_fault(const Call& call);
    std::vector<iovec> buffers(const Call& call) const;
    void transfer_partially(const Call& call, size_t size);
    void answer_with_record(const Call& call, int argument, const void* record, size_t size,
                            int64_t result = 0);
    void check_path(const Call& call, const std::string& path);
    std::string path_of(const Call& call) const;
    int fd_of(const Call& call) const;
    std::vector<pollfd> polled(const Call& call) const;
    short ready(const pollfd& entry) const;

    const Call* request_ = nullptr;
    std::map<std::string, int> counts_;  // calls so far, by family
    bool in_main_ = false;               // the C library's start-up is over
    bool device_lost_ = false;
};

}  // namespace rvd::lab

// What becomes of each system call of the daemon: answered by the phone, by the models, by the
// virtual clock, failed as the scenario has it, or left to the kernel.
#pragma once

#include <poll.h>

#include <map>
#include <string>
#include <vector>

#include "lab/gate/clock.h"
#include "lab/gate/daemon.h"
#include "lab/gate/links.h"
#include "lab/phone/phone.h"
#include "lab/run/stage.h"

namespace rvd::lab {

// What a call is served with.
struct CallScene {
    const Scenario& scenario;
    const Phone& phone;
    Story& story;
    RunStage& stage;
    Daemon& daemon;
    Clock& clock;
    Links& links;
};

class Calls : private CallScene {
  public:
    explicit Calls(const CallScene& scene) : CallScene(scene) {}

    void restart() { in_main_ = device_gone_ = false; }

    void handle(const Call& call);

    // The request to a driver that is being answered.
    const Call& served() const { return *served_; }

    // The device is in upload mode: the request that led there is never answered.
    void lose_device() { device_gone_ = true; }

    // Ends a wait: a poll where one of its descriptors is ready, and any whose time is up.
    bool finish_poll(const Call& call);
    void expire(const Call& call);

    std::string path_of_fd(int fd) const;

    // The handlers that the table names; for calls that do not fail.
    void serve_open(const Call& call);
    void serve_ioctl(const Call& call);
    void serve_syslog(const Call& call);
    void serve_statfs(const Call& call);
    void serve_identity(const Call& call);
    void serve_sync(const Call& call);
    void serve_write(const Call& call);
    void serve_poll(const Call& call);
    void serve_sleep(const Call& call);
    void serve_clock(const Call& call);
    void serve_clone(const Call& call);
    void end_thread(const Call& call);
    void look(const Call& call);  // checks the path, where it is always watched
    void pass(const Call& call) { daemon.proceed(call); }

  private:
    bool apply_fault(const Call& call);
    const Fault* due_fault(const Call& call);
    std::vector<iovec> buffers(const Call& call) const;
    void transfer_part(const Call& call, size_t size);
    void answer_with(const Call& call, int argument, const void* record, size_t size,
                     int64_t result = 0);
    void check_path(const Call& call, const std::string& path);
    std::string path_of(const Call& call) const;
    int fd_of(const Call& call) const;
    std::vector<pollfd> polled(const Call& call) const;
    short ready(const pollfd& entry) const;

    const Call* served_ = nullptr;
    std::map<std::string, int> times_;  // of each call, as on_call counts them
    bool in_main_ = false;              // the daemon's own code runs, not its start-up
    bool device_gone_ = false;
};

}  // namespace rvd::lab

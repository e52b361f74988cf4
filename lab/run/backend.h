// A backend runs the daemon and connects it with the models: the gate (lab/gate) or the machine's
// own kernel (lab/device).
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "lab/modem/modem.h"
#include "lab/run/story.h"
#include "lab/scenario/scenario.h"

namespace rvd::lab {

class Phone;
struct RunOptions;

class RunBackend : public Backend {
  public:
    RunBackend(const Scenario& scenario, const Phone& phone, Story& story,
               const RunOptions& options);

    Modem& modem() { return *modem_; }

    // Starts the daemon, after killing the one that runs.
    virtual void start_daemon() = 0;

    // Reboots the device: the modem is off, properties are reset, and the daemon starts. Returns
    // false if the machine itself reboots: run() then returns "reboot", and the run continues in
    // another process.
    virtual bool reboot();

    // Runs until the daemon exits ("exit N", "signal N"), waits with nothing left to wake it
    // ("waits", "parked"), reaches the limit ("limit"), or stop() is called. Kills the daemon.
    virtual std::string run() = 0;
    void stop(const std::string& end) { end_ = end; }

    void later(Time delay, std::function<void()> what) override {
        events_.emplace(now() + delay, std::move(what));
    }

    // The daemon's process, and the paths of its descriptors without the standard ones and the
    // kernel log; the nodes are "/dev/boot" and "/dev/dump".
    virtual pid_t daemon() const = 0;
    std::map<int, std::string> descriptors() const;
    std::vector<std::string> open_paths() const;  // sorted

    // Called when the daemon begins to wait for a hang-up and, on the gate, when its only thread
    // begins to sleep.
    std::function<void()> on_wait;
    std::function<void(Time)> on_sleep;

    // Called before each of the daemon's own calls, if all are intercepted: its family, its number
    // among the calls of the family, its path and descriptor (or -1).
    std::function<void(const std::string& call, int nth, const std::string& path, int fd)> on_call;

    // Called when a fault is about to be injected. Where the fault stops the daemon, the callee
    // kills it by an event that is due at once, so that no further call of the daemon is handled.
    std::function<void(const Fault&)> on_fault;

    // Called when the device enters upload mode. Returns whether a reboot follows.
    std::function<bool()> on_upload;

    // Called before the machine itself panics or reboots.
    std::function<void(bool panics)> on_machine_down;

    // Reports a node that the daemon has open more often than it needs.
    void check_open_count(Node node, size_t open);

  protected:
    // The path of a descriptor of the daemon; "" while threads may be changing it.
    virtual std::string path_of(int fd) const = 0;

    void run_due_events();
    void check_timeout();  // ends a run that takes too much real time
    void enter_upload_mode();
    void report_start();

    // Ends the run with the daemon's wait status.
    void record_exit(int status);

    const Scenario& scenario_;
    const Phone& phone_;
    Story& story_;
    const RunOptions& options_;
    const std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
    const std::unique_ptr<Modem> modem_;
    std::string end_;
    std::multimap<Time, std::function<void()>> events_;
};

// The phone must be built. The run began at `start` of the phone's time; a continued one is at
// `now`. Throw Error, the second also for a scenario whose faults only the gate can inject.
std::unique_ptr<RunBackend> make_gate(const Scenario& scenario, const Phone& phone, Story& story,
                                      const RunOptions& options, Time start);
std::unique_ptr<RunBackend> make_device_backend(const Scenario& scenario, const Phone& phone,
                                                Story& story, const RunOptions& options, Time start,
                                                Time now);

}  // namespace rvd::lab

// A stage for a whole run: what the run needs beyond what the models need.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>

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

    // Starts the daemon, and ends the one that runs.
    virtual void start_daemon() = 0;

    // Reboots the device. Returns false where the machine itself goes down: serve() returns
    // "reboot", and the run continues in another process.
    virtual bool reboot() {
        start_daemon();
        return true;
    }

    // Serves until the daemon exits ("exit N", "signal N"), waits without an end ("waits",
    // "parked"), reaches the limit ("limit"), or stop() is called. Ends the daemon.
    virtual std::string run() = 0;
    void stop(const std::string& end) { end_ = end; }

    void later(Time delay, std::function<void()> what) override {
        events_.emplace(now() + delay, std::move(what));
    }

    // The daemon's process, and its descriptors with their paths but for the standard ones and the
    // kernel log; the nodes are "/dev/boot" and "/dev/dump".
    virtual pid_t daemon() const = 0;
    std::map<int, std::string> descriptors() const;

    // Called when the daemon begins to wait for a hang-up, and, on the gate, when its only thread
    // sleeps.
    std::function<void()> on_wait;
    std::function<void(Time)> on_sleep;

    // Where the stage takes every call: the name by which scenarios know it, which time since the
    // start of the run it is made, its path and descriptor (or -1). Of the daemon's own calls
    // alone.
    std::function<void(const std::string& call, int time, const std::string& path, int fd)> on_call;

    // Called when a call is about to fail as the scenario wants it. One that stops the daemon is
    // held for good, or returns and is followed by no other: an event that is due then ends it.
    std::function<void(const Fault&)> on_fault;

    // Called when the device goes to upload mode. Returns whether a reboot follows.
    std::function<bool()> on_upload;

    // Called before the machine itself goes down.
    std::function<void(bool panics)> on_machine_down;

    // A node that is open more often than the daemon needs is a violation.
    void check_open_count(Node node, size_t open);

  protected:
    // The path of a descriptor of the daemon; "" where that can change at any time.
    virtual std::string path_of(int fd) const = 0;

    void run_due_events();
    void check_timeout();  // ends a run that takes too much real time
    void enter_upload_mode();
    void report_start();

    // Takes the status that wait() gave for the daemon.
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

// The gate between the daemon and its kernel, and the stage on this machine's own kernel. The phone
// is built; the run began at `start`, and it is `now` on the phone. These throw Error, the second
// also where the scenario wants of the kernel what a real one does not do on demand.
std::unique_ptr<RunBackend> make_gate(const Scenario& scenario, const Phone& phone, Story& story,
                                      const RunOptions& options, Time start);
std::unique_ptr<RunBackend> make_device_backend(const Scenario& scenario, const Phone& phone,
                                                Story& story, const RunOptions& options, Time start,
                                                Time now);

}  // namespace rvd::lab

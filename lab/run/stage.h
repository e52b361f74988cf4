// A stage that a whole run can be played on: what the run asks of it, beyond what the models do.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "lab/modem/modem.h"
#include "lab/run/story.h"
#include "lab/scenario/scenario.h"

namespace rvd::lab {

class RunStage : public Stage {
  public:
    RunStage(const Scenario& scenario, Story& story) : scenario_(scenario), story_(story) {}

    virtual void connect(Modem& modem) { modem_ = &modem; }

    // Starts the daemon, instead of the one that runs.
    virtual void start_daemon() = 0;

    // The device reboots: the daemon starts afresh. A stage that goes down itself returns false,
    // and serve() returns "reboot"; then the run goes on in another process.
    virtual bool reboot() = 0;

    // Serves until the daemon exits ("exit N", "signal N"), waits for what can't come ("waits",
    // "parked"), the limit is reached ("limit") or stop() is called. Ends the daemon.
    virtual std::string serve() = 0;
    void stop(const std::string& end) { end_ = end; }

    void later(Time delay, std::function<void()> what) override {
        events_.emplace(now() + delay, std::move(what));
    }

    // What the daemon has open: path by descriptor, "/dev/boot" and "/dev/dump" for the nodes.
    virtual std::map<int, std::string> descriptors() const = 0;

    // The daemon's process; and the scenario's faults count from now on. The gate alone.
    virtual pid_t daemon() const { return -1; }
    virtual void recount_faults() {}

    // Called when the daemon begins to wait for a hang-up, and with each sleep of its only thread
    // where the stage sees it.
    std::function<void()> on_wait;
    std::function<void(Time)> on_sleep;

    // Where the stage takes every call: the name by which scenarios know it, which time since the
    // start of the run it is made, its path and descriptor (or -1). Of the daemon's own calls
    // alone.
    std::function<void(const std::string& call, int time, const std::string& path, int fd)> on_call;

    // Called when a call is about to fail as the scenario wants it. One that stops the daemon is
    // held for good, or returns and is followed by no other: an event that is due then ends it.
    std::function<void(const Fault&)> on_fault;

    // Called when the device goes to upload mode; true if the run goes on, with a reboot.
    std::function<bool()> on_upload;

    // Called when the machine itself is about to go down and nothing can be said afterwards.
    std::function<void(bool panics)> on_down;

    // Fails the run where a node is open more often than the daemon needs.
    void check_opens(Node node, size_t open);

  protected:
    void run_due_events();
    void tell_start();

    // The daemon has ended, with the status that wait() gave.
    void take_end(int status);

    const Scenario& scenario_;
    Story& story_;
    Modem* modem_ = nullptr;
    std::string end_;
    std::multimap<Time, std::function<void()>> events_;
};

}  // namespace rvd::lab

// A stage that a whole run can be played on: what the run asks of it, beyond what the models do.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "lab/modem.h"

namespace rvd::lab {

class RunStage : public Stage {
  public:
    virtual void connect(Modem& modem) = 0;

    // Starts the daemon, instead of the one that runs.
    virtual void start_daemon() = 0;

    // The device reboots: the daemon starts afresh. A stage that goes down itself returns false,
    // and serve() returns "reboot"; then the run goes on in another process.
    virtual bool reboot() = 0;

    // Serves until the daemon exits ("exit N", "signal N"), waits for what can't come ("waits",
    // "parked"), the limit is reached ("limit") or stop() is called. Ends the daemon.
    virtual std::string serve() = 0;
    virtual void stop(const std::string& end) = 0;

    // What the daemon has open: path by descriptor, "/dev/boot" and "/dev/dump" for the nodes.
    virtual std::map<int, std::string> descriptors() const = 0;

    // Called when the daemon begins to wait for a hang-up, and with each sleep of its only thread
    // where the stage sees it.
    std::function<void()> on_wait;
    std::function<void(Time)> on_sleep;

    // Where the stage takes every call: the name by which scenarios know it, which time since the
    // start of the run it is made, and its path. Of the daemon's own calls alone.
    std::function<void(const std::string& call, int time, const std::string& path)> on_call;

    // Called when a call is about to fail as the scenario wants it.
    std::function<void()> on_fault;

    // Called when the device goes to upload mode; true if the run goes on, with a reboot.
    std::function<bool()> on_upload;

    // Called when the machine itself is about to go down and nothing can be said afterwards.
    std::function<void(bool panics)> on_down;
};

}  // namespace rvd::lab

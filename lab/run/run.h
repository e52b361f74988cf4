// One run of one scenario: a phone, a daemon, what happens to it, and what came of it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "lab/campaign/conduct.h"
#include "lab/campaign/workplace.h"
#include "lab/run/story.h"
#include "lab/run/timeline.h"
#include "lab/scenario/scenario.h"

namespace rvd::lab {

// A run that goes on.
struct Play {
    Scenario& scenario;
    const Phone& phone;
    RunStage& stage;
    Modem& modem;
    Story& story;
    const Timeline& timeline;
};

// Who has a hand in a run, and judges it in place of what the scenario expects.
class Conductor {
  public:
    virtual ~Conductor() = default;
    virtual void begin(Play&) {}
    virtual void call(const std::string& /*name*/, const std::string& /*path*/, int /*fd*/) {}
    virtual void line(const std::string& /*text*/) {}
    virtual void waits() {}  // before what the timeline has for the wait for the modem
    virtual void fault(const Fault&) {}
    virtual void judge(Conduct& conduct) = 0;
};

struct RunOptions {
    std::string daemon;  // the binary, as it is
    std::string root;    // an existing directory to build the phone's root in
    bool keep = false;   // its files stay
    Output trace;        // where the trace goes
    Output picture;      // where the picture goes
    Output log;          // where the daemon's lines go, all of them
    bool real_time = false;
    bool device = false;   // on this machine's own kernel, with character devices
    std::string prepare;   // a command that such a run gives the phone's root before the daemon
    std::string notebook;  // where it keeps what it goes on with after a reboot of the machine;
                           // empty: the machine stays up
    bool story = true;     // told as it happens
    Look look;             // of the story
    bool summary = false;  // files, transfers and verdict at the end
    int timeout = 60;      // seconds of real time
    int jitter = 0;        // microseconds that the gate waits between two reads
    bool learn = false;    // every call of the daemon is seen, and becomes part of the conduct
    std::shared_ptr<Conductor> conductor;
};

// Thrown when the run goes on after this machine's reboot, which is now due: call again then, with
// the same notebook.
struct Reboots {};

struct Result {
    std::vector<std::string> violations;  // empty if everything held
    Conduct conduct;
};

// Runs the scenario in this process, which it changes for good: run it in a child. Throws Unable.
Result run_scenario(const Scenario& scenario, const RunOptions& options);

}  // namespace rvd::lab

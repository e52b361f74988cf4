// One run of one scenario: a phone, a daemon, what happens to it, and what came of it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "lab/campaign/conduct.h"
#include "lab/campaign/workplace.h"
#include "lab/run/story.h"
#include "lab/scenario/scenario.h"

namespace rvd::lab {

// A run that goes on, for one who has a hand in it.
struct Play {
    Scenario& scenario;
    const Phone& phone;
    RunStage& stage;
    Story& story;
    size_t position;  // of the timeline
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
    bool learn = false;    // the daemon's calls become part of the conduct
    const Conduct* clean = nullptr;      // held against this, instead of what the scenario expects
    std::function<void(Play&)> on_wait;  // before what the timeline has for the wait for the modem
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

// One run of one scenario: a phone, a daemon, what happens to it, and what came of it.
#pragma once

#include <string>
#include <vector>

#include "lab/scenario.h"

namespace rvd::lab {

struct RunOptions {
    std::string daemon;  // the binary, as it is
    std::string root;    // an existing directory to build the phone's root in
    bool keep = false;   // its files stay
    std::string trace;   // where the trace goes; empty: nowhere
    std::string log;     // where the daemon's lines go, all of them; empty: nowhere
    bool real_time = false;
    bool relay = false;    // behind the relay module, on this machine's own kernel
    std::string notebook;  // where such a run keeps what it needs to go on after a reboot
    bool story = true;     // told as it happens
    bool summary = false;  // files, transfers and verdict at the end
    int timeout = 60;      // seconds of real time
};

// Thrown when the run goes on after this machine's reboot, which is now due: call again then, with
// the same notebook.
struct Reboots {};

// Runs the scenario in this process, which it changes for good: run it in a child. Returns the
// violations, empty if everything held. Throws Unable.
std::vector<std::string> run_scenario(const Scenario& scenario, const RunOptions& options);

}  // namespace rvd::lab

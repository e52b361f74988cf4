// The gate between the daemon and its kernel: the loop that lets the daemon run to its next system
// call, has that call served, and moves the clock when nothing else can happen. What it needs for
// that are the daemon's process (daemon.h), its threads and their time (clock.h), its descriptors
// to the models (links.h) and what becomes of each call (calls.h).
#pragma once

#include <chrono>
#include <memory>

#include "lab/phone/phone.h"
#include "lab/run/stage.h"

namespace rvd::lab {

struct GateSetup {
    Time start;
    bool real_time;
    std::chrono::seconds patience;  // real time after which a run has failed
    bool learn = false;             // every call is taken, and told to on_call
    int jitter = 0;                 // microseconds between two reads of what the daemon says
};

std::unique_ptr<RunStage> make_gate(const Scenario& scenario, const Phone& phone, Story& story,
                                    GateSetup setup);

}  // namespace rvd::lab

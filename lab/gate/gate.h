// The gate between the daemon and its kernel: the loop that lets the daemon run to its next system
// call, has that call served, and moves the clock when nothing else can happen. What it needs for
// that are the daemon's process (daemon.h), its threads and their time (clock.h), its descriptors
// to the models (links.h) and what becomes of each call (calls.h).
#pragma once

#include "lab/run/run.h"

namespace rvd::lab {

std::unique_ptr<RunStage> make_gate(const Scenario& scenario, const Phone& phone, Story& story,
                                    const RunOptions& options, Time start);

}  // namespace rvd::lab

// The stage on a real kernel: character devices for the nodes, and the machine's own log, clock,
// disk and rights. Where the machine is the phone, its clock is set to the scenario's and a panic
// or a reboot takes it down; where it is not, only the daemon starts afresh.
#pragma once

#include "lab/run/run.h"

namespace rvd::lab {

// The run began at `start`, and it is `now` on the phone, which is built. Throws Unable where the
// scenario wants of the kernel what a real one does not do on demand.
std::unique_ptr<RunStage> make_device_stage(const Scenario& scenario, const Phone& phone,
                                            Story& story, const RunOptions& options, Time start,
                                            Time now);

}  // namespace rvd::lab

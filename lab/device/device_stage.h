// The stage on a real kernel: character devices for the nodes, and the machine's own log, clock,
// disk and rights. Where the machine is the phone, its clock is set to the scenario's and a panic
// or a reboot takes it down; where it is not, only the daemon starts afresh.
#pragma once

#include <chrono>
#include <memory>

#include "lab/phone/phone.h"
#include "lab/run/stage.h"

namespace rvd::lab {

struct DeviceSetup {
    Time start, now;  // of the run; of the phone's clock
    std::chrono::seconds patience;
    bool is_phone;        // the machine
    std::string prepare;  // a command that gets the phone's root before the daemon starts
};

// The phone is built. Throws Unable where the scenario wants of the kernel what a real one does not
// do on demand.
std::unique_ptr<RunStage> make_device_stage(const Scenario& scenario, const Phone& phone,
                                            Story& story, DeviceSetup setup);

}  // namespace rvd::lab

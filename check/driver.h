// Tests the driver: runs the daemon's own boot and dump, and checks every answer against the
// contract.
#pragma once

#include "check/capture.h"
#include "check/report.h"

namespace rvd::check {

// Describes the test to the user, who has to agree to it.
extern const char kDriverTest[];

// Boots the modem, waits for an event, dumps it and powers it off. Does not panic the kernel.
void check_driver_contract(Report& report, Capture& lines);

}  // namespace rvd::check

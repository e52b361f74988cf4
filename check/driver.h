// Tests the driver: runs the daemon's own boot and dump, and compares every answer with what the
// daemon relies on.
#pragma once

#include "check/capture.h"
#include "check/report.h"

namespace rvd::check {

// What the test does; to be shown before it is agreed to.
extern const char kDriverTest[];

// Boots the modem, waits for an event, dumps it and powers it off. No kernel panic is asked for.
void check_driver_contract(Report& report, Capture& lines);

}  // namespace rvd::check

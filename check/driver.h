// The driver put to the test: the daemon's own boot and dump run against it, and every request is
// held against what the daemon relies on.
#pragma once

#include "check/capture.h"
#include "check/report.h"

namespace rvd::check {

// What the test does, for whoever is asked before it.
extern const char kDriverTest[];

// Boots the modem, waits for an event, dumps it and powers it off. No kernel panic is asked for.
void check_driver_contract(Report& report, Capture& lines);

}  // namespace rvd::check

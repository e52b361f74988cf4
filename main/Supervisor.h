// The daemon's life: start-up, then one pass after another. A pass boots the modem, and in daemon
// mode waits for what becomes of it.
#pragma once

#include <optional>

namespace rvd {

// Logs, debug options, command line, identity. A value is the exit status of a process that has
// nothing to supervise.
std::optional<int> start_up(int argc, char** argv);

// One pass. A value is the exit status after a one-shot boot; none: the next pass is due.
std::optional<int> run_pass();

// Waits on the boot node for one event of the booted modem and deals with it.
void watch_modem();

}  // namespace rvd

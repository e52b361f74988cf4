// Supervision: start-up, then one pass after another. A pass boots the modem and, in daemon mode,
// watches it until an event ends the pass.
#pragma once

#include <optional>

namespace rvd {

// Sets up logs, debug options, arguments and identity. Returns an exit status if the process must
// end here.
std::optional<int> start_up(int argc, char** argv);

// Runs one pass. Returns an exit status after a one-shot boot.
std::optional<int> run_pass();

// Waits on the boot node for an event from the booted modem and handles it.
void watch_modem();

// The property that is "1" when the modem has been reset since the last boot.
constexpr char kResetDone[] = "vendor.rvd.reset_done";

}  // namespace rvd

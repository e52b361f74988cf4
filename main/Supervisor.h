// The daemon's life: start-up, then one pass after another. A pass boots the modem, and in daemon
// mode waits for the event that ends it.
#pragma once

#include <optional>

namespace rvd {

// Sets up logs, debug options, arguments and identity. A value is the exit status of a process that
// supervises nothing.
std::optional<int> start_up(int argc, char** argv);

// Runs one pass. A value is the exit status after a one-shot boot.
std::optional<int> run_pass();

// Waits on the boot node for an event of the booted modem and handles it.
void watch_modem();

// "1" when the modem was reset since the last boot.
constexpr char kResetDone[] = "vendor.rvd.reset_done";

}  // namespace rvd

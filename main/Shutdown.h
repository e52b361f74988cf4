// The daemon stops by parking: init would restart a process that exits.
#pragma once

namespace rvd {

// Sleeps forever.
[[noreturn]] void park();

// When the device's shutdown is checked for.
enum class shutdown_moment { BETWEEN_PASSES, AFTER_EVENT };

// If the platform is shutting the device down, powers the modem off and parks; after an event it
// also confirms this to the platform.
void park_on_device_shutdown(const char* tag, shutdown_moment moment);

}  // namespace rvd

// How the daemon stops for good: parked, since init would start an ended one again.
#pragma once

namespace rvd {

// Never returns and does nothing more.
[[noreturn]] void park();

// When a device shutdown is seen.
enum class shutdown_moment { BETWEEN_PASSES, AFTER_EVENT };

// Powers the modem off and parks when the platform shuts the device down; after an event it also
// answers the platform.
void park_on_device_shutdown(const char* tag, shutdown_moment moment);

}  // namespace rvd

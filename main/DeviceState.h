// What the supervision loop asks of the platform's properties, and its way to stop for good.
#pragma once

#include "util/Property.h"

namespace rvd {

constexpr char kShutdownRequested[] = "sys.shutdown.requested";
constexpr char kNoResetBooted[] = "vendor.rvd.cpboot";
constexpr char kResetDone[] = "vendor.rvd.reset_done";
constexpr char kBootCount[] = "vendor.rvd.cp_reset";
constexpr char kBootDone[] = "vendor.rvd.boot_done";
constexpr char kDeviceOffAnswer[] = "vendor.rvd.deviceOffRes";

// Never returns and does nothing more.
[[noreturn]] void park();

// Saves the kernel log on a thread of its own, under a name.
void save_logs_in_background(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Reports a kernel panic that could not be forced.
void force_kernel_panic(const char* tag, const char* reason);

}  // namespace rvd

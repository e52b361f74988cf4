// What the supervision loop asks of the platform's properties, and its way to stop for good.
#pragma once

#include <cutils/properties.h>

namespace rvd {

constexpr char kShutdownRequested[] = "sys.shutdown.requested";
constexpr char kNoResetBooted[] = "vendor.rvd.cpboot";
constexpr char kResetDone[] = "vendor.rvd.reset_done";
constexpr char kBootCount[] = "vendor.rvd.cp_reset";
constexpr char kBootDone[] = "vendor.rvd.boot_done";
constexpr char kDeviceOffAnswer[] = "vendor.rvd.deviceOffRes";

// A property's value as it stood when it was read.
class Property {
  public:
    Property(const char* name, const char* fallback) { property_get(name, value_, fallback); }

    const char* text() const { return value_; }
    bool is_set() const { return value_[0] == '1'; }

  private:
    char value_[PROPERTY_VALUE_MAX];
};

// Never returns and does nothing more.
[[noreturn]] void park();

// Saves the kernel log on a thread of its own, under a name.
void save_logs_in_background(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Reports a kernel panic that could not be forced.
void force_kernel_panic(const char* tag, const char* reason);

}  // namespace rvd

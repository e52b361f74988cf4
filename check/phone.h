// What the daemon finds on this phone: read-only, as the user that the daemon becomes.
#pragma once

#include "check/capture.h"
#include "check/report.h"

namespace rvd::check {

// The arguments are in the registry. Returns whether driver, firmware and NV data allow a boot.
bool check_phone(Report& report, Capture& lines);

void check_labels(Report& report);

// Of a file; "" where it cannot be read.
std::string first_line(const char* path);

}  // namespace rvd::check

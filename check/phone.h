// Checks everything that the daemon needs on this phone, read-only and as the daemon's user.
#pragma once

#include "check/capture.h"
#include "check/report.h"

namespace rvd::check {

// Takes the arguments from the registry. Returns whether driver, firmware and NV file allow a boot.
bool check_phone(Report& report, Capture& lines);

void check_labels(Report& report);

// The first line of a file, or "" if it cannot be read.
std::string first_line(const char* path);

}  // namespace rvd::check

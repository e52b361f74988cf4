// From evidence to a scenario of the virtual phone that leads the daemon along the same lines.
#pragma once

#include <string>
#include <vector>

#include "report/timeline/timeline.h"

namespace rvd::report {

// A whole scenario file with one case. Throws Unreadable where no line of the daemon tells
// anything.
std::string scenario(const Report& report, const std::vector<Event>& events);

}  // namespace rvd::report

// A report on a terminal or in a pipe.
#pragma once

#include <string>

#include "report/incident/incident.h"

namespace rvd::report {

struct Style {
    bool colours = false;
};

// One screen for each incident, and what was lost as the last line.
std::string screen(const Report& report, const Style& style);

}  // namespace rvd::report

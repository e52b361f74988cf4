// A report on a terminal or in a pipe.
#pragma once

#include <string>

#include "report/findings/findings.h"
#include "report/timeline/timeline.h"

namespace rvd::report {

struct Style {
    bool colours = false;
};

// In the colour of a terminal's code, where there are colours.
std::string painted(const std::string& what, const char* code, const Style& style);

// One screen for each incident, and what was lost as the last line.
std::string screen(const Report& report, const std::vector<Finding>& findings, const Style& style);

// One line for each entry.
std::string screen(const std::vector<Entry>& timeline, const Style& style);

}  // namespace rvd::report

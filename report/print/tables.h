// What is printed as a table: many incidents, two of them side by side, silent-reset records.
#pragma once

#include <optional>
#include <string>

#include "report/incident/incident.h"
#include "report/print/screen.h"

namespace rvd::report {

struct Selection {
    std::optional<DeviceTime> since;
    std::string reason;  // part of it, upper or lower case
    bool incomplete = false;

    bool takes(const Incident& incident) const;
};

// One line for each incident, and their number.
std::string list(const Report& report, const Selection& selection, const Style& style);

// Two crashes side by side; `alike` tells whether anything differs but times.
std::string compare(const Incident& a, const Incident& b, const Style& style, bool& alike);

std::string records_table(const Report& report, const Style& style);

}  // namespace rvd::report

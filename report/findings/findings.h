// What the daemon's lines mean, and what to do: known troubles, found in a timeline.
#pragma once

#include <string>
#include <vector>

#include "report/timeline/timeline.h"

namespace rvd::report {

struct Finding {
    const Event* first = nullptr;
    size_t times = 0;
    std::string means;
};

// In the order of their first lines. A line that several troubles know counts for the first.
std::vector<Finding> find_troubles(const std::vector<Event>& events);

// Whether `text` has the pattern in it, where "..." stands for anything.
bool has_pattern(const std::string& text, const std::string& pattern);

}  // namespace rvd::report

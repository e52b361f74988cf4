// A report for programs; docs/report.schema.json describes it. All of it is ASCII.
#pragma once

#include <string>
#include <vector>

#include "report/findings/findings.h"
#include "report/incident/incident.h"
#include "report/timeline/timeline.h"

namespace rvd::report {

// Raised with every change that a reader could notice.
constexpr int kSchemaVersion = 1;

std::string json(const Report& report, const std::vector<Finding>& findings,
                 const std::vector<Entry>& timeline);

}  // namespace rvd::report

// The soak: one phone that lives through pass after pass of whatever a seed makes of it.
#pragma once

#include "lab/campaign/report.h"

namespace rvd::lab {

struct SoakOptions {
    int64_t seed = 0;
    int passes = 0;
    std::string shape = "mixed";  // what the seed makes: "mixed", "storm", "flap" or "liar"
    int replays = 0;  // so often the same story is told, and compared; 0: it is lived once
    RunOptions run;
};

// Returns the exit status.
int run_soak(const SoakOptions& options, const ReportOptions& reporting);

}  // namespace rvd::lab

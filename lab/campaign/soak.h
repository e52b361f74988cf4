// The soak: one phone on which passes of random events and faults follow each other.
#pragma once

#include "lab/campaign/report.h"

namespace rvd::lab {

struct SoakOptions {
    int64_t seed = 0;
    int passes = 0;
    std::string shape = "mixed";  // kind of passes: "mixed", "storm", "flap" or "liar"
    int replays = 0;  // run the same soak this often and compare the stories; 0: run it once
    RunOptions run;
};

// Returns the exit status.
int run_soak(const SoakOptions& options, const ReportOptions& reporting);

}  // namespace rvd::lab

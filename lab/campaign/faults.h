// The fault campaign: every system call that the daemon makes in the flows of its life, failed in
// every way that it can fail.
#pragma once

#include "lab/campaign/report.h"

namespace rvd::lab {

struct FaultOptions {
    RunOptions run;
    std::string only;  // one fault, "FLOW:CALL:N:FAULT", with its story; or the flows to fail
    int spread = 0;    // so many faults, evenly chosen; 0: all
    int jobs = 1;
    std::string kind = "fail";  // or "kill" or "cut"
    bool list = false;          // the names of the faults, instead of running them
    Reporting reporting;
};

// Reports what failed, and a table. Returns the exit status.
int run_faults(const FaultOptions& options);

// The ways in which a call can fail on a path: an errno, "short", "end" or "hang-up". Empty for one
// that cannot; null for one that nothing is known of.
const std::vector<const char*>* ways_to_fail(const std::string& call);

// The fault that a way to fail is, at the nth such call. Throws Unable.
Fault make_fault(const std::string& call, int nth, const std::string& way);

}  // namespace rvd::lab

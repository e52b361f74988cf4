// The fault campaign. It repeats each flow of the daemon once for every system call and every way
// that the call can fail; or it kills the daemon or cuts the phone's power there.
#pragma once

#include "lab/campaign/report.h"

namespace rvd::lab {

struct FaultOptions {
    RunOptions run;
    std::string only;  // one flow; or one fault, "FLOW:CALL:N:FAILURE", with its story
    int spread = 0;    // how many faults to choose evenly; 0: all
    int jobs = 1;
    std::string kind = "fail";  // or "kill" or "cut"
    bool list = false;          // only print the names of the faults
    ReportOptions reporting;
};

// Runs the campaign and prints its report. Returns the exit status.
int run_faults(const FaultOptions& options);

// The failures of a call on any path: an errno, "short", "end" or "hang-up". Throws Error for an
// unknown call.
const std::vector<const char*>& failures_of(const std::string& call);

// The fault that makes the nth such call fail this way.
Fault make_fault(const std::string& call, int nth, const std::string& failure);

}  // namespace rvd::lab

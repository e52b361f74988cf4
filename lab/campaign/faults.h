// The fault campaign: at every system call that the daemon makes in the flows of its life the call
// fails, in every way that it can; or the daemon is killed, or the phone's power cut.
#pragma once

#include "lab/campaign/report.h"

namespace rvd::lab {

struct FaultOptions {
    RunOptions run;
    std::string only;  // one fault, "FLOW:CALL:N:WAY", with its story; or one flow
    int spread = 0;    // so many faults, evenly chosen; 0: all
    int jobs = 1;
    std::string kind = "fail";  // or "kill" or "cut"
    bool list = false;          // the names of the faults, instead of running them
    ReportOptions reporting;
};

// Reports what failed, and a table. Returns the exit status.
int run_faults(const FaultOptions& options);

// The ways in which a call can fail on some path: an errno, "short", "end" or "hang-up". Throws
// Error where none is known.
const std::vector<const char*>& failures_of(const std::string& call);

// The fault that a way is, at the nth such call.
Fault make_fault(const std::string& call, int nth, const std::string& failure);

}  // namespace rvd::lab

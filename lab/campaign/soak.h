// The soak: one phone that lives through pass after pass of whatever a seed makes of it.
#pragma once

#include "lab/campaign/report.h"

namespace rvd::lab {

// Returns the exit status.
int run_soak(int64_t seed, int passes, RunOptions options, const Reporting& reporting);

}  // namespace rvd::lab

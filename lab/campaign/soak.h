// The soak: one phone that lives through pass after pass of whatever a seed makes of it.
#pragma once

#include "lab/run/run.h"

namespace rvd::lab {

// Returns how it ended: an exit status.
int run_soak(int64_t seed, int passes, RunOptions options);

}  // namespace rvd::lab

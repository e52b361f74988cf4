// The checks of a run. Each failure becomes a violation of the story.
#pragma once

#include "lab/run/context.h"
#include "lab/run/record.h"

namespace rvd::lab {

// At power-on only the descriptors of this boot are open, each once; between two passes only those
// of the logs.
void check_at_power_on(const RunContext& run);
void check_between_passes(const RunContext& run);

// Every fault of the scenario has occurred; every answer and deviation, too.
void check_faults(const RunContext& run);
void check_triggers(const RunContext& run);

void check_expectations(const RunContext& run, const RunRecord& record);

// Each file that should equal the modem's data equals its beginning.
void check_collected(const RunContext& run);

// Of the files of each expectation at least one equals the modem's data.
void check_whole(const RunContext& run);

// No sanitizer has reported anything.
void check_sanitizers(const RunContext& run);

}  // namespace rvd::lab

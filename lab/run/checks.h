// The checks of a run. Each failed check adds a violation to the story.
#pragma once

#include "lab/run/record.h"
#include "lab/run/timeline.h"

namespace rvd::lab {

// At power-on only this boot's descriptors are open, each once; between two passes only the logs'.
void check_at_power_on(const RunContext& run);
void check_between_passes(const RunContext& run);

// Every fault of the scenario has fired; the second also checks driver answers and loader quirks.
void check_faults(const RunContext& run);
void check_triggers(const RunContext& run);

void check_expectations(const RunContext& run, const RunRecord& record);

// Each file that should equal the modem's data is a prefix of it.
void check_prefixes(const RunContext& run);

// For each expectation at least one file equals the modem's data.
void check_any_complete(const RunContext& run);

// No sanitizer has reported anything.
void check_sanitizers(const RunContext& run);

}  // namespace rvd::lab

// The checks of a run. Each failure becomes a violation of the story.
#pragma once

#include "lab/campaign/conduct.h"
#include "lab/run/play.h"

namespace rvd::lab {

// At power-on only the descriptors of this boot are open, each once; between two passes only those
// of the logs.
void check_at_power_on(const Play& play);
void check_between_passes(const Play& play);

// Every fault of the scenario has occurred; every answer and deviation, too.
void check_faults(const Play& play);
void check_obstacles(const Play& play);

void check_expectations(const Play& play, const Conduct& conduct);

// Each file that should equal the modem's data equals its beginning.
void check_collected(const Play& play);

// Of the files of each expectation at least one equals the modem's data.
void check_whole(const Play& play);

// No sanitizer has reported anything.
void check_sanitizers(const Play& play);

}  // namespace rvd::lab

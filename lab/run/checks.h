// What a run is held against once it has ended. Everything that isn't so becomes a violation.
#pragma once

#include "lab/campaign/conduct.h"
#include "lab/phone/phone.h"
#include "lab/run/story.h"
#include "lab/scenario/scenario.h"

namespace rvd::lab {

// Every fault and deviation of a scenario must have occurred, or the run has shown nothing. Where
// `faults_alone`, the fault may keep the modem's deviations from occurring.
void check_obstacles(const Scenario& scenario, bool faults_alone, Story& story);

void check_expectations(const Scenario& scenario, const Phone& phone, const Conduct& conduct,
                        Story& story);

// Whatever a fault left of a file that is to equal what the modem has: it equals that as far as it
// goes.
void check_collected(const Scenario& scenario, const Phone& phone, Story& story);

// Of all files that are to equal something that the modem has, one at least does.
void check_whole(const Scenario& scenario, const Phone& phone, Story& story);

// What must be so in every run: no sanitizer has complained.
void check_always(const Phone& phone, Story& story);

// A heading, and a line for each file in the log directory with its size.
std::vector<std::string> file_summary(const Phone& phone);

}  // namespace rvd::lab

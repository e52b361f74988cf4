// The checks after a run. Each failure becomes a violation of the story.
#pragma once

#include "lab/campaign/conduct.h"
#include "lab/phone/phone.h"
#include "lab/run/story.h"
#include "lab/scenario/scenario.h"

namespace rvd::lab {

// Every fault and deviation of the scenario has occurred; with `faults_alone` only the faults are
// checked, since they may prevent the deviations.
void check_obstacles(const Scenario& scenario, bool faults_alone, Story& story);

void check_expectations(const Scenario& scenario, const Phone& phone, const Conduct& conduct,
                        Story& story);

// Each file that should equal the modem's data equals its beginning.
void check_collected(const Scenario& scenario, const Phone& phone, Story& story);

// Of the files of each expectation at least one equals the modem's data.
void check_whole(const Scenario& scenario, const Phone& phone, Story& story);

// In every run: no sanitizer has reported anything.
void check_always(const Phone& phone, Story& story);

// A heading, and a line for each file in the log directory with its size.
std::vector<std::string> file_summary(const Phone& phone);

}  // namespace rvd::lab

// What a run is held against once it has ended. Everything that isn't so becomes a violation.
#pragma once

#include "lab/driver.h"
#include "lab/phone.h"
#include "lab/scenario.h"
#include "lab/story.h"

namespace rvd::lab {

struct Outcome {
    std::string end;
    Time lasted;
};

void check_expectations(const Scenario& scenario, const Phone& phone, const Driver& driver,
                        const Outcome& outcome, Story& story);

// What must be so in every run: no sanitizer has complained.
void check_always(const Phone& phone, Story& story);

// The files below the log directory with their sizes, for people.
std::vector<std::string> file_summary(const Phone& phone);

}  // namespace rvd::lab

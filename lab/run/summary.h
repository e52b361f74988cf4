// What is printed behind a story: how the run ended, what was transferred, what the daemon saved.
#pragma once

#include "lab/campaign/conduct.h"
#include "lab/phone/phone.h"
#include "lab/run/story.h"

namespace rvd::lab {

// Where it is brief the files are only counted.
void print_summary(const Phone& phone, const Story& story, const Conduct& conduct, bool brief);

}  // namespace rvd::lab

// What the parts of a run share.
#pragma once

#include "lab/modem/modem.h"
#include "lab/phone/phone.h"
#include "lab/run/backend.h"
#include "lab/run/story.h"
#include "lab/scenario/scenario.h"

namespace rvd::lab {

class Timeline;

struct RunContext {
    Scenario& scenario;
    const Phone& phone;
    RunBackend& backend;
    Modem& modem;
    Story& story;
    const Timeline& timeline;
};

}  // namespace rvd::lab

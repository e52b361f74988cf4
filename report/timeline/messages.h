// A timeline as messages between the phone, the daemon, the driver and the boot loader.
#pragma once

#include <string>
#include <vector>

#include "report/timeline/timeline.h"

namespace rvd::report {

enum class Actor { kPhone, kDaemon, kDriver, kLoader };

struct Message {
    KernelTime at = kNoTime;
    Actor from = Actor::kDaemon, to = Actor::kDaemon;  // the same: nobody else is told
    std::string text;
    bool failure = false;
    bool band = false;  // across all: a silence, a repetition
};

// Lines that tell of no one but the daemon, and steps too small for a picture, are left out.
std::vector<Message> messages_of(const std::vector<Entry>& timeline);

}  // namespace rvd::report

// All lines of the daemon in the order they were said, from every file that has some of them.
#pragma once

#include <string>
#include <vector>

#include "report/incident/incident.h"

namespace rvd::report {

struct Event {
    KernelTime at = kNoTime;
    DeviceTime clock = -1;  // the device's, to the second
    bool failure = false;
    bool device_started = false;  // between this line and the one before
    std::string step, message, text;
    std::string meaning;
};

std::vector<Event> merge_lines(Report& report, const Evidence& evidence);

// A timeline with its silences named and its repetitions counted.
struct Entry {
    enum class Kind { kEvent, kSilence, kRepetition, kStart } kind = Kind::kEvent;
    const Event* event = nullptr;
    KernelTime span = 0;
    std::string text;  // of what is no event
};

std::vector<Entry> tell(const std::vector<Event>& events);

}  // namespace rvd::report

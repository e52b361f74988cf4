// What a run on a real kernel writes down before the machine goes down, so that it can go on in
// another process afterwards.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "lab/base.h"

namespace rvd::lab {

struct Notebook {
    Time start = 0, now = 0;
    size_t position = 0;    // of the timeline
    bool panicked = false;  // rather than rebooted
    std::string crash_sentence;
    std::vector<std::string> log, requests, violations;
    std::map<std::string, int> times;  // of the driver's requests

    // Returns false where nothing was written down. Reading it uses it up.
    bool take(const std::string& path);

    // On the disk when this returns. Throws Unable.
    void store(const std::string& path) const;
};

}  // namespace rvd::lab

// How a run went, as far as another one can be held against it: what `rvd-lab faults` learns from a
// run in which nothing fails, and asks of those in which something does.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "lab/phone/phone.h"
#include "lab/run/backend.h"

namespace rvd::lab {

// A file's content by its path within the phone.
using Files = std::map<std::string, std::string>;

struct RecordedCall {
    std::string name;
    int nth = 0;  // which of its kind
    std::string path;
    std::string last_line;  // the last line before it
};

struct RunRecord {
    std::string end;
    Time lasted = 0;
    std::vector<std::string> open;  // at the last wait for the modem
    std::vector<std::string> requests;
    int modem = 0;  // its state at the end
    Files files;    // at the end
    std::vector<RecordedCall> calls;
};

// The paths behind the daemon's descriptors, sorted.
std::vector<std::string> open_paths(const RunBackend& backend);

// The phone's files but for those that the daemon has open.
Files closed_files(const Phone& phone, const std::vector<std::string>& open);

}  // namespace rvd::lab

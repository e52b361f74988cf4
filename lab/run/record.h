// The record of a run. `rvd-lab faults` compares a run with a fault with the record of the same run
// without it.
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
    int nth = 0;  // among the calls of this name
    std::string path;
    std::string last_line;  // that the daemon had logged before
};

struct RunRecord {
    std::string end;
    Time lasted = 0;
    std::vector<std::string> open;  // at the last wait for the modem
    std::vector<std::string> requests;
    int modem = 0;  // state at the end
    Files files;    // at the end
    std::vector<RecordedCall> calls;
};

// The paths of the daemon's descriptors, sorted.
std::vector<std::string> open_paths(const RunBackend& backend);

// The phone's files without those in `open`.
Files closed_files(const Phone& phone, const std::vector<std::string>& open);

}  // namespace rvd::lab

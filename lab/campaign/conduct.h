// How a run went, as far as another one can be held against it: what `rvd-lab faults` learns from a
// run in which nothing fails, and asks of those in which something does.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "lab/phone/phone.h"
#include "lab/run/stage.h"

namespace rvd::lab {

// A file's content by its path within the phone.
using Files = std::map<std::string, std::string>;

struct MadeCall {
    std::string call;
    int time = 0;  // which of its kind
    std::string path;
    std::string place;  // the last line before it
};

struct Conduct {
    std::string end;
    Time lasted = 0;
    std::vector<std::string> open;  // at the last wait for the modem
    std::vector<std::string> requests;
    int modem = 0;  // its state at the end
    Files files;    // at the end
    std::vector<MadeCall> calls;
};

// The paths behind the daemon's descriptors, sorted.
std::vector<std::string> open_paths(const RunStage& stage);

// The phone's files but for those that the daemon has open.
Files closed_files(const Phone& phone, const std::vector<std::string>& open);

}  // namespace rvd::lab

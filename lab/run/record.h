// The record of a run. `rvd-lab faults` compares a run with a fault with the record of the same run
// without it.
#pragma once

#include <string>
#include <vector>

#include "lab/phone/phone.h"

namespace rvd::lab {

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

}  // namespace rvd::lab

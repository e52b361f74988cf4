// The state of a run that continues in another process after a reboot of the machine.
#pragma once

#include <unistd.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "lab/base.h"

namespace rvd::lab {

struct Notebook {
    Time start = 0, now = 0;
    size_t position = 0;    // in the timeline
    bool panicked = false;  // the machine panicked; otherwise it rebooted in order
    std::string panic_reason;
    std::vector<std::string> log, requests, violations;
    std::vector<int64_t> answers;  // the occurrences of each scripted answer

    // Reads and removes the file; false if there is none.
    bool load(const std::string& path);

    // Writes the file and flushes it to the disk. Throws Error.
    void save(const std::string& path) const;
};

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Notebook, start, now, position, panicked, panic_reason, log,
                                   requests, violations, answers)

inline bool Notebook::load(const std::string& path) {
    const auto notes = nlohmann::json::parse(read_file(path), nullptr, false);
    unlink(path.c_str());
    if (!notes.is_discarded()) notes.get_to(*this);
    return !notes.is_discarded();
}

inline void Notebook::save(const std::string& path) const {
    write_file(path, nlohmann::json(*this).dump());
    sync();
}

}  // namespace rvd::lab

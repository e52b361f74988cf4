#include "lab/device/notebook.h"

#include <unistd.h>

#include <nlohmann/json.hpp>

namespace rvd::lab {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Notebook, start, now, position, panicked, crash_sentence, log,
                                   requests, violations, answers)

bool Notebook::take(const std::string& path) {
    const auto notes = nlohmann::json::parse(read_file(path), nullptr, false);
    unlink(path.c_str());
    if (!notes.is_discarded()) notes.get_to(*this);
    return !notes.is_discarded();
}

void Notebook::store(const std::string& path) const {
    write_file(path, nlohmann::json(*this).dump());
    sync();
}

}  // namespace rvd::lab

// Messages drawn as a sequence, for any browser: no script, no foreign markup.
#pragma once

#include <string>
#include <vector>

#include "report/timeline/messages.h"

namespace rvd::report {

// What is beyond kPictureRows messages is counted in a last row.
constexpr size_t kPictureRows = 2000;

std::string picture(const std::string& title, const std::vector<Message>& messages);

}  // namespace rvd::report

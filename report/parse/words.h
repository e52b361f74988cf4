// What the numbers in a line mean: words of the link, states, owners, requests, results.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "report/parse/lines.h"

namespace rvd::report {

// "DONE of stage 0, asked"; "step 3 of the dump, asked"; empty where it is not a word of the link.
std::string link_word(uint32_t word);

// "crash"; "state 3" for one that is not acted upon.
std::string state_word(int64_t state);

// The meaning of a line's numbers; empty where it has none that need one.
std::string meaning_of(const Line& line);

}  // namespace rvd::report

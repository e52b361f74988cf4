// Sizes, times and foreign text as people read them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "report/parse/lines.h"

namespace rvd::report {

// "1 MiB", "30.5 KiB", "66 bytes".
std::string people_size(uint64_t bytes);

// "77.400000", as the kernel writes it.
std::string people_stamp(KernelTime micros);

// "850 ms", "14 s", "2 min 5 s".
std::string people_span(KernelTime micros);

// Text that was not written for a terminal: what is not printable shows as \x1b, and so does what
// reorders or hides the text around it.
std::string printable(std::string_view text);

// Says on standard error how much has been read, after 2 s and where that is a terminal. The line
// is taken back when all is read.
void show_progress(uint64_t count, const char* what);
void end_progress();

}  // namespace rvd::report

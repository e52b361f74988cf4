// What only a real kernel can show of the daemon: its identity and rights, and its lines in the
// kernel's own log.
#pragma once

#include <string>
#include <vector>

namespace rvd::lab {

// One record as the kernel's log gives it to a reader. True where it is one of the daemon's; then
// its level and its text, line breaks restored.
bool parse_kernel_record(const std::string& record, int& level, std::string& text);

// What is wrong with the user and the capabilities in a "/proc/PID/status"; `root` where the daemon
// was told to stay root.
std::vector<std::string> identity_faults(const std::string& status, bool root);

// Lines that stand in one of both logs only, or with another level. Kernel lines are their level's
// digit followed by the text.
std::vector<std::string> sink_faults(const std::vector<std::string>& kernel,
                                     const std::string& android);

}  // namespace rvd::lab

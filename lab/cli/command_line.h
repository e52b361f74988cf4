// The command line of rvd-lab: what it takes, and what it says of what it does not take.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "lab/run/run.h"

namespace rvd::lab {

struct CommandLine {
    enum class Command { none, demo, run, check, toc, faults, soak, keys };
    Command command = Command::none;
    RunOptions run;
    std::string modem = "tq720", firmware, only, trace, picture, log, junit, color = "auto";
    std::vector<std::string> files;
    std::optional<int64_t> seed;
    int jobs = 1, spread = 0, passes = 10000;
    bool quiet = false, story = false, list = false, json = false, brief = false;
};

// An exit status instead, where there is nothing left to do: help and version have been printed, or
// on standard error what is wrong.
std::optional<int> parse_command_line(int argc, char** argv, CommandLine& line);

}  // namespace rvd::lab

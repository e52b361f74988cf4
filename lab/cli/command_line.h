// The command line of rvd-lab, and the commands.
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
    std::string modem = "tq720", firmware, only, trace, picture, log, junit, color = "auto",
                kind = "fail", shape = "mixed";
    std::vector<std::string> files;
    std::optional<int64_t> seed;
    int jobs = 1, spread = 0, passes = 0, replays = 0;
    bool quiet = false, story = false, list = false, json = false, brief = false;
};

// Returns an exit status where nothing is left to do: help or version is printed, or the error, on
// standard error.
std::optional<int> parse_command_line(int argc, char** argv, CommandLine& line);

// Executes the command and returns the exit status. Throws Unable.
int execute(CommandLine& line);

}  // namespace rvd::lab

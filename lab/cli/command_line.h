// The command line of rvd-lab and its commands.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "lab/campaign/faults.h"
#include "lab/campaign/soak.h"

namespace rvd::lab {

// The options of all commands.
struct CommandLine {
    int (*command)(CommandLine&) = nullptr;
    RunOptions run;
    ReportOptions reporting;
    FaultOptions faults;
    SoakOptions soak;
    std::string modem = "tq720", firmware, only, color = "auto";
    std::string trace, picture, log, junit;  // files for results
    std::vector<std::string> files;
    std::optional<int64_t> seed;
    int jobs = 1;
    bool list = false, brief = false;
};

// Returns an exit status if it has printed help, the version or an error; nothing is left to do
// then.
std::optional<int> parse_command_line(int argc, char** argv, CommandLine& line);

// The commands. Each returns the exit status and throws Error.
int demo(CommandLine& line);
int run(CommandLine& line);
int check(CommandLine& line);
int toc(CommandLine& line);
int faults(CommandLine& line);
int soak(CommandLine& line);
int keys(CommandLine& line);

}  // namespace rvd::lab

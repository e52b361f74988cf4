// What each command of rvd-lab does.
#pragma once

#include "lab/cli/command_line.h"

namespace rvd::lab {

// Returns the exit status. Throws Unable.
int execute(CommandLine& line);

}  // namespace rvd::lab

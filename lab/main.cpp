// rvd-lab: the virtual phone as a program.

#include <stdio.h>

#include "lab/campaign/campaign.h"
#include "lab/cli/commands.h"

using namespace rvd::lab;

int main(int argc, char** argv) try {
    CommandLine line;
    if (const auto status = parse_command_line(argc, argv, line)) return *status;
    return execute(line);
} catch (const std::exception& error) {
    fprintf(stderr, "rvd-lab: %s\n", error.what());
    return dynamic_cast<const Forbidden*>(&error) != nullptr ? kForbidden : kRefused;
}

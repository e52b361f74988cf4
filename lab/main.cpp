// rvd-lab: the virtual phone as a program.

#include <errno.h>
#include <signal.h>
#include <stdio.h>

#include <system_error>

#include "lab/campaign/workers.h"
#include "lab/cli/command_line.h"

using namespace rvd::lab;

int main(int argc, char** argv) try {
    CommandLine line;
    if (const auto status = parse_command_line(argc, argv, line)) return *status;
    signal(SIGPIPE, SIG_IGN);
    const int status = execute(line);
    if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
    if (errno == EPIPE) return kSignal + SIGPIPE;
    fail_errno("cannot write to standard output");
} catch (const std::exception& error) {
    const auto* failed = dynamic_cast<const std::system_error*>(&error);
    if (failed != nullptr && failed->code().value() == EPIPE) return kSignal + SIGPIPE;
    fprintf(stderr, "rvd-lab: %s\n", error.what());
    return dynamic_cast<const Forbidden*>(&error) != nullptr ? kForbidden : kRefused;
}

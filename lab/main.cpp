// The program rvd-lab.

#include <errno.h>
#include <fmt/core.h>
#include <signal.h>
#include <sys/resource.h>

#include <system_error>

#include "lab/cli/command_line.h"

using namespace rvd::lab;

namespace {

void check_open_files() {
    constexpr rlim_t kEnough = 64;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < kEnough)
        throw Error(
                fmt::format("{} open files are not enough: ulimit -n {}", limit.rlim_cur, kEnough));
}

}  // namespace

int main(int argc, char** argv) try {
    CommandLine line;
    if (const auto status = parse_command_line(argc, argv, line)) return *status;
    signal(SIGPIPE, SIG_IGN);
    check_open_files();
    const int status = line.command(line);
    if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
    if (errno == EPIPE) return kSignalBase + SIGPIPE;
    throw_errno("cannot write to standard output");
} catch (const std::exception& error) {
    const auto* failed = dynamic_cast<const std::system_error*>(&error);
    if (failed != nullptr && failed->code().value() == EPIPE) return kSignalBase + SIGPIPE;
    fmt::print(stderr, "rvd-lab: {}\n", error.what());
    return dynamic_cast<const Unsupported*>(&error) != nullptr ? kUnsupported : kError;
}

// Part of the daemon in a coverage build only: writes the counters when the virtual phone
// terminates the daemon, which does not exit by itself.
#include <signal.h>
#include <unistd.h>

extern "C" void __gcov_dump();

namespace {

void flush(int) {
    __gcov_dump();
    _exit(0);
}

const bool installed = signal(SIGTERM, flush) != SIG_ERR;

}  // namespace

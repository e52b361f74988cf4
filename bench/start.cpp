// From the start of the daemon's process to its first request to the driver.
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "bench/duel.h"

namespace rvd::bench {

namespace {

double since(const timespec& start, const timespec& end) {
    return static_cast<double>(end.tv_sec - start.tv_sec) +
           static_cast<double>(end.tv_nsec - start.tv_nsec) * 1e-9;
}

void start(benchmark::State& state) {
    char log[] = "RVD_ANDROID_LOG=android.log";
    char* environment[] = {log, nullptr};
    static bool silent = false;
    if (silent) return state.SkipWithError("the daemon made no request within 10 s");
    for ([[maybe_unused]] auto turn : state) {
        int ends[2];
        if (pipe(ends) != 0) return state.SkipWithError("no pipe");
        timespec begin = {}, end = {};
        clock_gettime(CLOCK_MONOTONIC, &begin);
        const pid_t child = vfork();
        if (child == 0) {
            dup2(ends[1], STDOUT_FILENO);
            execle(RVD_FIRST_REQUEST, "rvd", "-ttq720", nullptr, environment);
            _exit(1);
        }
        close(ends[1]);
        const bool answered = read(ends[0], &end, sizeof(end)) == sizeof(end);
        close(ends[0]);
        waitpid(child, nullptr, 0);
        silent = !answered;
        if (silent) return state.SkipWithError("the daemon made no request within 10 s");
        state.SetIterationTime(since(begin, end));
    }
}
BENCHMARK(start)->UseManualTime()->Iterations(50)->Repetitions(9)->ReportAggregatesOnly();

}  // namespace

}  // namespace rvd::bench

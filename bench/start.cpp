// From the start of the daemon's process to its first request to the driver.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "util/ScopedFd.h"

namespace rvd::bench {

namespace {

double since(const timespec& start, const timespec& end) {
    return static_cast<double>(end.tv_sec - start.tv_sec) +
           static_cast<double>(end.tv_nsec - start.tv_nsec) * 1e-9;
}

void start(benchmark::State& state) {
    char program[] = RVD_FIRST_REQUEST, type[] = "-ttq720", log[] = "RVD_ANDROID_LOG=/dev/null";
    char* words[] = {program, type, nullptr};
    char* environment[] = {log, nullptr};
    for ([[maybe_unused]] auto turn : state) {
        int ends[2];
        if (pipe(ends) != 0) return state.SkipWithError("no pipe");
        const ScopedFd out(ends[0]);
        ScopedFd in(ends[1]);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in.get(), STDOUT_FILENO);

        timespec begin = {}, end = {};
        pid_t child = 0;
        clock_gettime(CLOCK_MONOTONIC, &begin);
        const int failed = posix_spawn(&child, program, &actions, nullptr, words, environment);
        in.reset();
        const bool answered = failed == 0 && read(out.get(), &end, sizeof(end)) == sizeof(end);
        posix_spawn_file_actions_destroy(&actions);
        if (failed == 0) waitpid(child, nullptr, 0);
        if (!answered) return state.SkipWithError("the daemon made no request");
        state.SetIterationTime(since(begin, end));
    }
}
BENCHMARK(start)->UseManualTime()->Iterations(50)->Repetitions(9)->ReportAggregatesOnly();

}  // namespace

}  // namespace rvd::bench

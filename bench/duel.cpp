#include "bench/duel.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <vector>

#include "log/Log.h"
#include "main/Container.h"
#include "protocol/ProtocolVelo.h"
#include "tests/support/kernel.h"

namespace rvd::bench {

void set_up_daemon() {
    static ProtocolVelo protocol;
    setenv("RVD_ANDROID_LOG", "/dev/null", 1);
    kmsg_fd = -1;
    test::kernel().real_time = true;
    test::kernel().driver = [](int, unsigned, void*) { return syscall(SYS_getppid), 0; };
    Container::setProtocol(&protocol);
    char program[] = "rvd", type[] = "-tvk880";
    char* words[] = {program, type, nullptr};
    if (Container::getBootDump() == nullptr) Container::parseArgs(2, words);
}

ScopedFd scratch_file() {
    const char* directory = getenv("TMPDIR");
    return ScopedFd(open(directory != nullptr ? directory : "/tmp", O_TMPFILE | O_RDWR, 0600));
}

void duel(benchmark::State& state, uint64_t bytes, const Work& prepare, const Work& daemon,
          const Work& bare) {
    using clock = std::chrono::steady_clock;
    std::vector<double> seconds[2];  // of the daemon, of the bare work
    const auto measure = [&](bool is_bare) {
        if (!prepare()) return false;
        const auto begin = clock::now();
        if (!(is_bare ? bare : daemon)()) return false;
        seconds[is_bare].push_back(std::chrono::duration<double>(clock::now() - begin).count());
        return true;
    };
    bool held = measure(false) && measure(true);  // warm-up
    for (std::vector<double>& side : seconds)
        side.clear();
    uint64_t allocated = 0;
    for ([[maybe_unused]] auto turn : state) {
        const bool bare_first = seconds[0].size() % 2 != 0;
        held = held && (!bare_first || measure(true));
        const uint64_t before = test::allocations;
        held = held && measure(false);
        allocated = test::allocations - before;
        held = held && (bare_first || measure(true));
        if (!held) return state.SkipWithError("the work failed");
        state.SetIterationTime(seconds[0].back());
    }
    std::vector<double> ratio;
    for (size_t i = 0; i < seconds[0].size(); ++i)
        ratio.push_back(seconds[1][i] / seconds[0][i]);
    std::sort(ratio.begin(), ratio.end());
    std::sort(seconds[1].begin(), seconds[1].end());
    // The 95 % confidence interval of the median.
    const size_t middle = ratio.size() / 2;
    const size_t reach = static_cast<size_t>(std::ceil(0.98 * std::sqrt(ratio.size())));
    state.counters["bare MB/s"] = static_cast<double>(bytes) * 1e-6 / seconds[1][middle];
    state.counters["ratio"] = ratio[middle];
    state.counters["low"] = ratio[middle - std::min(middle, reach)];
    state.counters["high"] = ratio[std::min(middle + reach, ratio.size() - 1)];
    state.counters["allocations"] = static_cast<double>(allocated);
}

}  // namespace rvd::bench

BENCHMARK_MAIN();

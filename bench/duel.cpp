#include "bench/duel.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>

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

bool Duel::measure(const Work& work, std::vector<double>* seconds) {
    if (!prepare_()) return false;
    const auto begin = std::chrono::steady_clock::now();
    if (!work()) return false;
    seconds->push_back(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
    return true;
}

void Duel::run(const Work& daemon, const Work& bare) {
    std::vector<double> warm_up;
    bool held = measure(daemon, &warm_up) && measure(bare, &warm_up);
    uint64_t allocated = 0;
    for ([[maybe_unused]] auto turn : state_) {
        const bool bare_first = daemon_.size() % 2 != 0;
        held = held && (!bare_first || measure(bare, &bare_));
        const uint64_t before = test::allocations;
        held = held && measure(daemon, &daemon_);
        allocated = test::allocations - before;
        held = held && (bare_first || measure(bare, &bare_));
        if (!held) return state_.SkipWithError("the work failed");
        state_.SetIterationTime(daemon_.back());
    }
    std::vector<double> ratio;
    for (size_t i = 0; i < daemon_.size(); ++i)
        ratio.push_back(bare_[i] / daemon_[i]);
    std::sort(ratio.begin(), ratio.end());
    std::sort(bare_.begin(), bare_.end());
    // Between these two stands the median of all turns there could be, nineteen times in twenty.
    const size_t middle = ratio.size() / 2;
    const size_t reach = static_cast<size_t>(std::ceil(0.98 * std::sqrt(ratio.size())));
    state_.counters["bare MB/s"] = static_cast<double>(bytes_) * 1e-6 / bare_[middle];
    state_.counters["ratio"] = ratio[middle];
    state_.counters["low"] = ratio[middle - std::min(middle, reach)];
    state_.counters["high"] = ratio[std::min(middle + reach, ratio.size() - 1)];
    state_.counters["allocations"] = static_cast<double>(allocated);
}

}  // namespace rvd::bench

BENCHMARK_MAIN();

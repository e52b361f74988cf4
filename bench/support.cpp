#include "bench/support.h"

#include <benchmark/benchmark.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <tuple>

#include "bootdump/BootDump.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/ProtocolVelo.h"

namespace rvd::bench {

namespace {

std::atomic<uint64_t> allocation_count;

// The two ends of a link share no core where there are two.
void pin(unsigned core) {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(core, &cores);
    sched_setaffinity(0, sizeof(cores), &cores);
}

double monotonic() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Between these two values stands the median of all turns there could be, nineteen times in twenty.
std::pair<double, double> around_median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const double count = static_cast<double>(values.size());
    const double reach = 0.98 * std::sqrt(count);
    const auto at = [&](double place) {
        return values[static_cast<size_t>(std::clamp(place, 0.0, count - 1))];
    };
    return {at((count - 1) / 2 - reach), at((count - 1) / 2 + reach + 1)};
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

}  // namespace

uint64_t allocations() {
    return allocation_count;
}

void set_up_daemon() {
    static const bool done = [] {
        static ProtocolVelo protocol;
        setenv("RVD_ANDROID_LOG", "/dev/null", 1);
        kmsg_fd = open("/dev/null", O_WRONLY);
        Container::setProtocol(&protocol);
        char program[] = "rvd", type[] = "-tvk880";
        char* words[] = {program, type, nullptr};
        return Container::parseArgs(2, words) == PARSE_OK;
    }();
    static_cast<void>(done);
}

ScopedFd scratch_file() {
    const char* directory = getenv("TMPDIR");
    return ScopedFd(open(directory != nullptr ? directory : "/tmp", O_TMPFILE | O_RDWR, 0600));
}

Phone::Phone(const std::function<void(int)>& loader) {
    set_up_daemon();
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) abort();
    link_.reset(ends[0]);
    const ScopedFd other(ends[1]);
    child_ = fork();
    if (child_ == 0) {
        link_.reset();
        pin(1);
        loader(other.get());
        _exit(0);
    }
    pin(0);
    Container::getStdBoot()->fd[BOOT_FD_NODE] = ends[0];
    Container::getStdDump()->fd[DUMP_FD_NODE] = ends[0];
}

Phone::~Phone() {
    link_.reset();
    waitpid(child_, nullptr, 0);
    Container::getBootDump()->std_boot_init_args();
    Container::getBootDump()->std_dump_init_args();
}

bool Duel::measure(const Work& work, std::vector<double>* seconds) {
    if (!prepare_()) return false;
    const double begin = monotonic();
    if (!work()) return false;
    seconds->push_back(monotonic() - begin);
    return true;
}

void Duel::run(const Work& daemon, const Work& bare) {
    // The lists must not grow while allocations are counted.
    constexpr size_t kManyTurns = 1000;
    daemon_.reserve(kManyTurns);
    bare_.reserve(kManyTurns);
    uint64_t allocated = 0;
    std::vector<double> warm_up;
    if (!measure(daemon, &warm_up) || !measure(bare, &warm_up))
        return state_.SkipWithError("the work failed");
    for ([[maybe_unused]] auto turn : state_) {
        const bool bare_first = daemon_.size() % 2 != 0;
        bool held = !bare_first || measure(bare, &bare_);
        const uint64_t before = allocations();
        held = held && measure(daemon, &daemon_);
        allocated = allocations() - before;
        held = held && (bare_first || measure(bare, &bare_));
        if (!held) return state_.SkipWithError("the work failed");
        state_.SetIterationTime(daemon_.back());
    }
    report(allocated);
}

void Duel::report(uint64_t allocated) {
    std::vector<double> ratio;
    for (size_t i = 0; i < daemon_.size(); ++i)
        ratio.push_back(bare_[i] / daemon_[i]);
    const double megabytes = static_cast<double>(bytes_) * 1e-6;
    state_.counters["MB/s"] = megabytes / median(daemon_);
    state_.counters["bare MB/s"] = megabytes / median(bare_);
    state_.counters["ratio"] = median(ratio);
    std::tie(state_.counters["low"], state_.counters["high"]) = around_median(ratio);
    state_.counters["allocations"] = static_cast<double>(allocated);
}

}  // namespace rvd::bench

// The driver takes every request, for the price of a system call that does next to nothing.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list values;
    va_start(values, request);
    void* argument = va_arg(values, void*);
    va_end(values);
    if (_IOC_TYPE(request) != rvd::kLnkmType)
        return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
    syscall(SYS_getppid);
    return 0;
}

// Every allocation is counted.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size) {
    ++rvd::bench::allocation_count;
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    ++rvd::bench::allocation_count;
    return __libc_calloc(count, size);
}
void* realloc(void* block, size_t size) {
    ++rvd::bench::allocation_count;
    return __libc_realloc(block, size);
}
int posix_memalign(void** block, size_t alignment, size_t size) noexcept {
    ++rvd::bench::allocation_count;
    *block = __libc_memalign(alignment, size);
    return *block != nullptr ? 0 : ENOMEM;
}
}

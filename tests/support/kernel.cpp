// With it, the C library's headers define inline variants of the same functions.
#undef _FORTIFY_SOURCE

#include "tests/support/kernel.h"

#include <errno.h>
#include <poll.h>
#include <stdarg.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/klog.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "bootdump/lnkm.h"

namespace rvd::test {

namespace {

std::unique_ptr<Kernel> current = std::make_unique<Kernel>();

void pause_for(unsigned milliseconds) {
    if (kernel().real_time) {
        const timespec pause = {milliseconds / 1000, milliseconds % 1000 * 1000000};
        nanosleep(&pause, nullptr);
        return;
    }
    const std::lock_guard<std::mutex> lock(kernel().sleeping);
    kernel().sleeps.push_back(milliseconds);
    if (kernel().on_sleep) kernel().on_sleep();
}

}  // namespace

Kernel& kernel() {
    return *current;
}

void reset_kernel() {
    current = std::make_unique<Kernel>();
}

size_t Kernel::join_detached() {
    const size_t count = detached.size();
    for (const pthread_t thread : detached)
        pthread_join(thread, nullptr);
    detached.clear();
    return count;
}

}  // namespace rvd::test

using rvd::test::kernel;

extern "C" {

int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list values;
    va_start(values, request);
    void* argument = va_arg(values, void*);
    va_end(values);
    if (_IOC_TYPE(request) != rvd::kLnkmType || !kernel().driver)
        return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
    return kernel().driver(fd, static_cast<unsigned>(request), argument);
}

int poll(pollfd* entries, nfds_t count, int timeout) {
    if (timeout != 0 && kernel().on_wait) kernel().on_wait();
    if (std::deque<short>& results = kernel().poll_results; !results.empty()) {
        entries->revents = results.front();
        results.pop_front();
        return 1;
    }
    const timespec limit = {kernel().real_time ? timeout / 1000 : 0, 0};
    const bool for_ever = kernel().real_time && timeout < 0;
    const int ready = ppoll(entries, count, for_ever ? nullptr : &limit, nullptr);
    if (ready == 0 && timeout != 0) kernel().timeouts.push_back(timeout);
    return ready;
}

unsigned sleep(unsigned seconds) {
    rvd::test::pause_for(seconds * 1000);
    return 0;
}

int usleep(useconds_t microseconds) {
    rvd::test::pause_for(microseconds / 1000);
    return 0;
}

int statfs(const char*, struct statfs* status) noexcept {
    *status = {};
    status->f_bsize = static_cast<decltype(status->f_bsize)>(kernel().block_size);
    status->f_bfree = kernel().free_blocks;
    errno = kernel().statfs_error;
    return errno == 0 ? 0 : -1;
}

int klogctl(int type, char* buffer, int size) noexcept {
    constexpr int kReadAll = 3;  // without clearing the buffer
    errno = type == kReadAll ? kernel().ring_error : EINVAL;
    if (errno != 0) return -1;
    const std::string& ring = kernel().ring;
    const size_t length = std::min(ring.size(), static_cast<size_t>(size));
    memcpy(buffer, ring.data() + ring.size() - length, length);
    return static_cast<int>(length);
}

int pthread_detach(pthread_t thread) noexcept {
    kernel().detached.push_back(thread);
    return 0;
}

}  // extern "C"

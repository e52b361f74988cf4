// Checked variants would be defined twice.
#undef _FORTIFY_SOURCE

#include "tests/support/kernel.h"

#include <errno.h>
#include <gtest/gtest.h>
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
#include <new>

#include "bootdump/StdArgs.h"
#include "main/Container.h"

namespace rvd::test {

namespace {

std::unique_ptr<Kernel> current = std::make_unique<Kernel>();

// The C++ library allocates before there is a kernel.
bool has_memory(size_t size) {
    return current == nullptr || size <= current->largest_block;
}

// A request of the dump record's goes to its node; of the others to the boot record's, or to a node
// opened for the purpose.
bool is_right_node(int fd, unsigned request) {
    switch (request) {
        case IOCTL_GET_LOG_DUMP:
        case IOCTL_GET_CP_CRASH_REASON:
        case IOCTL_GET_LNKM_VERSION:
            return fd == Container::getStdDump()->fd[DUMP_FD_NODE];
        case IOCTL_TRIGGER_KERNEL_PANIC:
            return fd != Container::getStdBoot()->fd[BOOT_FD_NODE];
        default: {
            const int node = Container::getStdBoot()->fd[BOOT_FD_NODE];
            return node < 0 || fd == node;
        }
    }
}

}  // namespace

Kernel& kernel() {
    return *current;
}

void reset_kernel() {
    current = std::make_unique<Kernel>();
}

int Driver::request(int fd, unsigned request, void* argument) {
    if (script_.empty() || script_.front().request != request) {
        ADD_FAILURE() << "request 0x" << std::hex << request << " where the script has 0x"
                      << (script_.empty() ? 0 : script_.front().request);
        errno = ENOTTY;
        return -1;
    }
    EXPECT_TRUE(is_right_node(fd, request)) << "request 0x" << std::hex << request;
    const Step step = script_.front();
    script_.pop_front();
    const int result = step.answer(argument);
    if (result < 0) errno = EIO;
    return result;
}

void Driver::verify() {
    for (const Step& step : script_)
        ADD_FAILURE() << "request 0x" << std::hex << step.request << " never came";
    script_.clear();
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
    if (((request >> 8) & 0xFF) != rvd::kLnkmType) {
        return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
    }
    return kernel().driver.request(fd, static_cast<unsigned>(request), argument);
}

int poll(pollfd* entries, nfds_t count, int timeout) {
    if (timeout != 0 && kernel().on_wait) kernel().on_wait();
    if (std::deque<short>& ends = kernel().wait_ends; !ends.empty()) {
        entries->revents = ends.front();
        ends.pop_front();
        return 1;
    }
    const timespec at_once = {};
    const int ready = ppoll(entries, count, &at_once, nullptr);
    if (ready == 0 && timeout != 0) kernel().timeouts.push_back(timeout);
    return ready;
}

unsigned sleep(unsigned seconds) {
    const std::lock_guard<std::mutex> lock(kernel().sleeping);
    kernel().sleeps.push_back(seconds * 1000);
    if (kernel().on_sleep) kernel().on_sleep();
    return 0;
}

int usleep(useconds_t microseconds) {
    kernel().sleeps.push_back(microseconds / 1000);
    if (kernel().on_sleep) kernel().on_sleep();
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
    EXPECT_EQ(type, 3);  // read all, clear nothing
    errno = kernel().ring_error;
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

// The daemon's objects.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return rvd::test::has_memory(size) ? malloc(size) : nullptr;
}

extern "C" {

void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size) {
    return rvd::test::has_memory(count * size) ? __real_calloc(count, size) : nullptr;
}

int __real_posix_memalign(void** block, size_t alignment, size_t size);
int __wrap_posix_memalign(void** block, size_t alignment, size_t size) {
    return rvd::test::has_memory(size) ? __real_posix_memalign(block, alignment, size) : ENOMEM;
}

}  // extern "C"

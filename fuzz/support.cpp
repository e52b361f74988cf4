#include "fuzz/support.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <new>
#include <utility>

#include <log/log.h>

#include "bootdump/BootDump.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/ProtocolVelo.h"

// A device refuses an image of gigabytes with null, and so must the sanitizer.
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=256";
}

namespace rvd::fuzz {

namespace {

// An NV file is made as large as the table says.
constexpr rlim_t kLargestFile = 1 << 20;

Run* current;  // the fuzzer makes the same calls in the same process

// The objects of the registry, which never releases one.
alignas(std::max_align_t) char objects[1 << 18];
size_t objects_size;

// Whether this call is one that the input has fail.
bool fails() {
    if (current == nullptr) return false;
    errno = EIO;
    const auto counts_out = [](uint16_t& left) { return left > 0 && --left == 0; };
    return std::count_if(std::begin(current->faults), std::end(current->faults), counts_out) > 0;
}

bool is_node(const char* path) {
    return strstr(path, "_boot0") != nullptr || strstr(path, "_ramdump0") != nullptr;
}

int lowest_free() {
    const int fd = dup(STDIN_FILENO);
    close(fd);
    return fd;
}

}  // namespace

void require(bool holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "does not hold: %s\n", what);
    abort();
}

Run::Run(bool external) : lowest_free_(lowest_free()) {
    test::reset_kernel();
    objects_size = 0;
    current = this;
    char program[] = "rvd", integrated_type[] = "-ttq720", external_type[] = "-tvk880";
    char* argv[] = {program, external ? external_type : integrated_type, nullptr};
    RvdArgs& args = *Container::getRvdArgs();
    args = {};
    require(Container::parseArgs(2, argv) == PARSE_OK, "a modem is named");
    strcpy(args.partition_path, "/efs/partition");
    strcpy(args.nv_data_path, "/efs/nv");
}

Run::~Run() {
    current = nullptr;
    test::reset_kernel();
    test::kernel().real_time = true;
    const auto is_open = [](int32_t fd) { return fd != -1; };
    for (const int32_t* slots : {Container::getStdBoot()->fd, Container::getStdDump()->fd})
        require(std::none_of(slots, slots + kFdSlots, is_open), "the records are closed");
    // The sanitizer's own thread may have one open for a moment.
    for (int tries = 0; lowest_free() > lowest_free_; ++tries) {
        require(tries < 1000, "no descriptor is left open");
        usleep(1000);
    }
}

}  // namespace rvd::fuzz

using namespace rvd::fuzz;

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    if (current == nullptr) return operator new(size);
    if (fails() || sizeof(objects) - objects_size < size) return nullptr;
    const size_t units = (size + alignof(std::max_align_t) - 1) / alignof(std::max_align_t);
    return objects + std::exchange(objects_size, objects_size + units * alignof(std::max_align_t));
}

extern "C" {

#define RVD_CALL(type, name, parameters, arguments)          \
    type __real_##name parameters;                           \
    type __wrap_##name parameters {                          \
        return fails() ? type{-1} : __real_##name arguments; \
    }

RVD_CALL(ssize_t, read, (int fd, void* data, size_t size), (fd, data, size))
RVD_CALL(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size))
RVD_CALL(ssize_t, writev, (int fd, const iovec* blocks, int count), (fd, blocks, count))
RVD_CALL(off_t, lseek, (int fd, off_t offset, int from), (fd, offset, from))
RVD_CALL(int, fsync, (int fd), (fd))
RVD_CALL(int, ftruncate, (int fd, off_t size), (fd, size))
RVD_CALL(int, rename, (const char* from, const char* to), (from, to))
RVD_CALL(int, linkat, (int from, const char* path, int to, const char* name, int flags),
         (from, path, to, name, flags))
RVD_CALL(int, mkdir, (const char* path, mode_t mode), (path, mode))

int __real_open(const char* path, int flags, mode_t mode);
int __wrap_open(const char* path, int flags, mode_t mode) {
    if (fails()) return -1;
    const bool node = current != nullptr && current->open_node && is_node(path);
    return node ? current->open_node() : __real_open(path, flags, mode);
}

void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size) {
    return fails() ? nullptr : __real_calloc(count, size);
}

int __real_posix_memalign(void** block, size_t alignment, size_t size);
int __wrap_posix_memalign(void** block, size_t alignment, size_t size) {
    return fails() ? ENOMEM : __real_posix_memalign(block, alignment, size);
}

// The machine's own disks have no part in a run.
void __wrap_sync() {}

// Lines are still formatted by the daemon, and go nowhere.
int __android_log_buf_print(int, int, const char*, const char*, ...) {
    return 1;
}

int LLVMFuzzerInitialize(int*, char***) {
    static rvd::ProtocolVelo protocol;
    rvd::Container::setProtocol(&protocol);
    rvd::test::enter_private_root();
    std::filesystem::create_directories("/data/vendor/log/rvd/err");
    for (const char* node : {"umts_boot0", "umts_ramdump0", "nr_boot0", "nr_ramdump0"})
        rvd::test::write_file(std::string("/dev/") + node, "");
    rvd::test::kernel().real_time = true;
    rvd::kmsg_fd = -1;
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {kLargestFile, kLargestFile};
    return setrlimit(RLIMIT_FSIZE, &limit);
}

}  // extern "C"

// NV data files: opened for a boot, created in the erased state if the device has none.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>

#include "log/Log.h"
#include "util/Heap.h"
#include "util/ScopedFd.h"
#include "util/Text.h"
#include "util/Util.h"

namespace rvd {

namespace {

constexpr mode_t kNvMode = 0660;
constexpr int kErasedByte = 0xFF;
constexpr uint64_t kBlock = uint64_t{64} * 1024;
constexpr int kBlocks = 1024;  // the kernel's limit for one writev (IOV_MAX)
// A larger value is a negative 32-bit size that was sign-extended.
constexpr uint64_t kMaxNvSize = INT_MAX;

bool open_nv(const char* path, int* fd) {
    const int opened = open(path, O_RDONLY | O_CLOEXEC);
    if (opened < 0) return false;
    Log::info("getNvFd", "NV(%s) opened (fd %d)\n", path, opened);
    *fd = opened;
    return true;
}

// Creates a file without a name (O_TMPFILE): until link_at_path() names it, a power cut leaves no
// partial file. On a file system without O_TMPFILE, `*named` is true and the file has its name.
int open_new(const char* path, bool* named) {
    constexpr int kFlags = O_RDWR | O_SYNC | O_CLOEXEC;
    char directory[kPathSize];
    copy_text(directory, path, static_cast<size_t>(strrchr(path, '/') + 1 - path));
    const int unnamed = open(directory, O_TMPFILE | kFlags, kNvMode);
    *named = unnamed < 0 && errno == EOPNOTSUPP;
    if (!*named) return unnamed;
    return open(path, O_CREAT | O_EXCL | O_NOFOLLOW | kFlags, kNvMode);
}

bool link_at_path(int fd, const char* path) {
    char unnamed[32];
    format_text(unnamed, "/proc/self/fd/%d", fd);
    return linkat(AT_FDCWD, unnamed, AT_FDCWD, path, AT_SYMLINK_FOLLOW) == 0;
}

// Writes up to 64 MiB per call, since each call waits for the storage (O_SYNC), and all of it from
// the same 64 KiB, so that the memory needed does not depend on the size in the table.
int fill_erased(int fd, const char* path, uint64_t size) {
    const HeapPtr<char> block = size <= kMaxNvSize ? heap_bytes(kBlock) : nullptr;
    if (!block) {
        Log::info("create_empty_nv", "ERR! malloc(%ld) fail\n", static_cast<long>(size));
        return -ENOMEM;
    }
    memset(block.get(), kErasedByte, kBlock);
    for (uint64_t left = size; left > 0;) {
        iovec blocks[kBlocks];
        int count = 0;
        for (uint64_t end = left; end > 0 && count < kBlocks; end -= blocks[count++].iov_len)
            blocks[count] = {block.get(), std::min(end, kBlock)};
        const ssize_t written = writev(fd, blocks, count);
        if (written == 0) errno = ENOSPC;
        if (written == 0 || (written < 0 && errno != EINTR)) {
            Log::error("create_empty_nv", "NV(%s) write fail\n", path);
            return -EFAULT;
        }
        if (written > 0) left -= static_cast<uint64_t>(written);
    }
    return 0;
}

}  // namespace

bool Util::getNvFd(cp_boot_mode mode, const char* path, int size, int* fd) {
    if (mode != CP_BOOT_MODE_NORMAL || path[0] == '\0') {
        *fd = -1;
        return true;
    }
    if (open_nv(path, fd)) return true;
    if (errno != ENOENT) {
        Log::error("getNvFd", "ERR! NV(%s) open fail\n", path);
        return false;
    }
    Log::info("getNvFd", "ERR! no NV(%s) file\n", path);
    if (create_empty_nv(path, static_cast<uint64_t>(static_cast<int64_t>(size))) < 0) {
        Log::info("getNvFd", "ERR! create_empty_nv(%s, %d) fail\n", path, size);
        return false;
    }
    if (open_nv(path, fd)) return true;
    Log::error("getNvFd", "ERR! NV(%s) open fail\n", path);
    return false;
}

int Util::create_empty_nv(const char* path, uint64_t size) {
    Log::info("create_empty_nv", "create NV(%s)\n", path);
    bool named = false;
    const ScopedFd nv(open_new(path, &named));
    if (!nv.valid()) {
        Log::error("create_empty_nv", "ERR! NV(%s) open fail\n", path);
        return -EFAULT;
    }
    int result = -EFAULT;
    if (size == 0) {
        Log::info("create_empty_nv", "ERR! wrong size(%ld)\n", 0L);
    } else {
        result = fill_erased(nv.get(), path, size);
    }
    // Also after a failed write: later boots use the file as it is.
    if (!named && !link_at_path(nv.get(), path)) {
        Log::error("create_empty_nv", "ERR! NV(%s) link fail\n", path);
        return -EFAULT;
    }
    if (result < 0) return result;
    // The content is already durable (O_SYNC); ext4 and f2fs make the new name durable with this.
    if (fsync(nv.get()) < 0) {
        Log::error("create_empty_nv", "ERR! fsync(nv_fd) fail\n");
    } else {
        Log::info("create_empty_nv", "NV(%s) saved %d bytes\n", path, static_cast<int>(size));
    }
    return 0;
}

}  // namespace rvd

// Saves a record from the driver to its files, and returns its text to the driver after the next
// boot.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>

#include "bootdump/lnkm.h"
#include "log/Log.h"
#include "main/Container.h"
#include "srinfo/SrinfoVelo.h"
#include "util/Heap.h"
#include "util/Io.h"
#include "util/ScopedFd.h"

namespace rvd {

namespace {

// "JVER", little-endian, at byte 2 of the text of every valid record.
constexpr uint32_t kValidMark = 0x5245564A;
constexpr size_t kValidMarkOffset = 18;

HeapPtr<srinfo_buf> new_record(const char* tag) {
    HeapPtr<srinfo_buf> record(static_cast<srinfo_buf*>(calloc(1, sizeof(srinfo_buf))));
    if (!record) {
        Log::info(tag, "read buf alloc(%d) fail\n", static_cast<int>(sizeof(srinfo_buf)));
    }
    return record;
}

}  // namespace

void SrinfoVelo::store_srinfo(int fd) {
    constexpr char kTag[] = "store_srinfo";
    const char* tag = Container::getRvdArgs()->node_prefix;
    if (last_exists(tag)) {
        Log::info(kTag, "srinfo_last file exist, skip!\n");
        return;
    }
    unsigned int size = 0;
    const HeapPtr<srinfo_buf> record(reinterpret_cast<srinfo_buf*>(alloc_srinfo(&size, fd)));
    if (!record) {
        Log::info(kTag, "alloc srinfo fail\n");
        return;
    }
    if (create_srinfo_directory(Log::get_log_dir()) < 0) return;
    if (create_srinfo_directory(Log::kErrorDir) < 0) return;
    if (save_last(tag, record->data, size)) save_log(tag, record->data, size);
}

bool SrinfoVelo::last_exists(const char* tag) {
    constexpr char kTag[] = "check_srinfo_last";
    char path[kPathSize];
    last_path(path, tag);
    Log::info(kTag, "%s: full_path: %s\n", kTag, path);
    struct stat status = {};
    // Any other error: the file may exist and hold a record for the driver.
    return lstat(path, &status) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

bool SrinfoVelo::save_last(const char* tag, char* data, unsigned int size) {
    const ScopedFd file(create_srinfo_last(tag));
    if (!file.valid()) {
        Log::info("store_srinfo", "sr_info_last open fail(%d)\n", file.get());
        return false;
    }
    const int written = write_srinfo_last(file.get(), data, size);
    if (written < 0) {
        Log::info("store_srinfo", "srinfo_last write fail(%d)\n", written);
        // restore_srinfo ignores an empty file, but would return a truncated record to the driver.
        if (ftruncate(file.get(), 0) < 0 || fsync(file.get()) < 0) {
            Log::error("store_srinfo", "ERR! srinfo_last is not emptied\n");
        }
    }
    return publish_last(tag) && written >= 0;
}

// Renames the complete file to its final name. If the daemon dies before, the next store_srinfo
// fetches the record again.
bool SrinfoVelo::publish_last(const char* tag) {
    char temporary[kPathSize];
    char path[kPathSize];
    temporary_path(temporary, tag);
    last_path(path, tag);
    if (rename(temporary, path) < 0) {
        Log::error("store_srinfo", "ERR! srinfo_last rename fail\n");
        return false;
    }
    flush_directory(Log::kErrorDir);
    return true;
}

void SrinfoVelo::save_log(const char* tag, char* data, unsigned int size) {
    const ScopedFd file(open_srinfo_file(tag));
    if (!file.valid()) {
        Log::info("store_srinfo", "sr_info_last create fail(%d)\n", file.get());
        return;
    }
    const int written = write_srinfo_file(file.get(), data, size);
    if (written < 0) Log::info("store_srinfo", "srinfo write fail(%d)\n", written);
}

char* SrinfoVelo::alloc_srinfo(unsigned int* size, int fd) {
    constexpr char kTag[] = "alloc_srinfo";
    HeapPtr<srinfo_buf> record = new_record(kTag);
    if (!record) return nullptr;
    record->len = sizeof(record->data);
    const int result = ioctl(fd, IOCTL_GET_SRINFO, record.get());
    if (result < 0) {
        Log::error(kTag, "ioctl fail - Get srinfo(%d)\n", result);
        return nullptr;
    }
    *size = record->len;
    uint32_t mark = 0;
    memcpy(&mark, record->data + kValidMarkOffset, sizeof(mark));
    if (mark != kValidMark) {
        Log::info(kTag, "Crash info string was invalid(%x/%x)\n", mark, kValidMark);
        return nullptr;
    }
    return reinterpret_cast<char*>(record.release());
}

void SrinfoVelo::restore_srinfo(int fd) {
    constexpr char kTag[] = "restore_srinfo";
    const char* tag = Container::getRvdArgs()->node_prefix;
    const ScopedFd file(open_srinfo_last(tag));
    if (!file.valid()) {
        Log::info(kTag, "sr_info_last open fail(%d)\n", file.get());
        return;
    }
    const HeapPtr<srinfo_buf> record = new_record(kTag);
    if (!record) return;
    const ssize_t count = read(file.get(), record->data, sizeof(record->data));
    if (count <= 0) {
        Log::error(kTag, "last_sr_info file read fail\n");
        return;
    }
    record->len = static_cast<uint32_t>(count);
    const int result = ioctl(fd, IOCTL_SET_SRINFO, record.get());
    if (result < 0) {
        Log::error(kTag, "ioctl fail - Set srinfo(%d)\n", result);
        return;
    }
    char path[kPathSize];
    last_path(path, tag);
    unlink(path);
    Log::info(kTag, "done = %s\n", path);
}

}  // namespace rvd

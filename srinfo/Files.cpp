// The files of a record: the srinfo log with its one backup, and the last-srinfo file, which keeps
// the text until the next boot.
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "bootdump/lnkm.h"
#include "log/Log.h"
#include "srinfo/SrinfoVelo.h"
#include "util/Io.h"
#include "util/ScopedFd.h"
#include "util/Text.h"

namespace rvd {

namespace {

constexpr mode_t kDirMode = 0775;
constexpr mode_t kFileMode = 0666;
constexpr int kAppend = O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

constexpr unsigned kTextOffset = 16;
constexpr unsigned kRow = 16;

// A zero-padded copy of a record's `valid` bytes, clamped to the data area, and of the `extra`
// bytes behind them: the last row, or a text without a brace, may extend beyond the data area.
struct PaddedRecord {
    PaddedRecord(const char* data, unsigned valid, unsigned extra)
        : size(std::min(valid, kSrinfoDataSize)) {
        memcpy(bytes, data, std::min(size + extra, kSrinfoDataSize));
    }

    char bytes[kSrinfoDataSize + kTextOffset + kRow] = {};
    unsigned size;
};

void write_row(int fd, unsigned offset, const char* row, const char (&text)[kRow + 1]) {
    uint32_t words[kRow / sizeof(uint32_t)];
    memcpy(words, row, sizeof(words));
    char line[sizeof("oooo: ") + 4 * sizeof("wwwwwwww") + sizeof(text)];
    format_text(line, "%04x:%08x %08x %08x %08x %s\n", offset, words[0], words[1], words[2],
                words[3], text);
    write_all(fd, line, strlen(line));
}

}  // namespace

void Srinfo::restore_srinfo(int) {}

void Srinfo::last_path(char (&path)[kPathSize], const char* tag) {
    format_text(path, "%s/%s_%s", Log::kErrorDir, "last_sr_info", tag);
}

void Srinfo::temporary_path(char (&path)[kPathSize], const char* tag) {
    format_text(path, "%s/%s_%s.new", Log::kErrorDir, "last_sr_info", tag);
}

char Srinfo::tochar(char c) {
    const unsigned char byte = static_cast<unsigned char>(c);
    return byte >= 0x22 && byte <= 0x7D ? c : '.';
}

int Srinfo::create_srinfo_directory(const char* path) {
    struct stat status = {};
    if (stat(path, &status) == 0) {
        if (S_ISDIR(status.st_mode)) return 0;
        Log::info("create_srinfo_directory", "(%s) is not a directory\n", path);
        return -1;
    }
    if (mkdir(path, kDirMode) < 0) {
        Log::error("create_srinfo_directory", "log path create fail : %s\n", path);
        return -1;
    }
    Log::info("create_srinfo_directory", "log path (%s) created\n", path);
    return 0;
}

int Srinfo::open_srinfo_file(const char* tag) {
    constexpr char kTag[] = "open_srinfo_file";
    char path[kPathSize];
    char previous[kPathSize];
    format_text(path, "%s/%s_%s", Log::get_log_dir(), "sr_info", tag);
    format_text(previous, "%s/.%s_%s.bak", Log::get_log_dir(), "sr_info", tag);
    Log::info(kTag, "open file - %s(%s)\n", path, previous);
    ScopedFd file(open(path, kAppend, kFileMode));
    if (!file.valid()) {
        Log::error(kTag, "open fail - %s\n", path);
        return -1;
    }
    struct stat status = {};
    if (fstat(file.get(), &status) < 0) {
        Log::error(kTag, "stat fail - srinfo log\n");
        return -1;
    }
    const unsigned long size = static_cast<unsigned long>(status.st_size);
    Log::info(kTag, "srinfo log size : %lu(0x%lx/0x%x)\n", size, size,
              static_cast<unsigned>(kSrinfoLogLimit));
    if (status.st_size <= kSrinfoLogLimit) return file.release();

    file.reset();
    remove(previous);
    if (rename(path, previous) < 0) {
        Log::error(kTag, "rename (%s -> %s) file fail\n", path, previous);
        return -1;
    }
    file.reset(open(path, kAppend, kFileMode));
    if (!file.valid()) Log::error(kTag, "srinfo open fail\n");
    return file.release();
}

int Srinfo::open_last_at_start(const char* path, int flags, const char* failure) {
    ScopedFd file(open(path, flags | O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kFileMode));
    const char* tag = flags & O_CREAT ? "create_srinfo_last" : "open_srinfo_last";
    if (!file.valid()) {
        Log::error(tag, "%s", failure);
        return -1;
    }
    if (lseek(file.get(), 0, SEEK_SET) < 0) {
        Log::error(tag, "fd_last lseek fail\n");
        return -1;
    }
    return file.release();
}

int Srinfo::open_srinfo_last(const char* tag) {
    char path[kPathSize];
    last_path(path, tag);
    Log::info("open_srinfo_last", "open last_sr_info file - %s\n", path);
    return open_last_at_start(path, 0, "last_sr_info open fail\n");
}

int SrinfoVelo::create_srinfo_last(const char* tag) {
    char path[kPathSize];
    char temporary[kPathSize];
    last_path(path, tag);
    temporary_path(temporary, tag);
    Log::info("create_srinfo_last", "create last_sr_info file - %s\n", path);
    return open_last_at_start(temporary, O_CREAT | O_TRUNC, "last_sr_info create fail\n");
}

int SrinfoVelo::write_srinfo_last(int fd, char* data, unsigned int size) {
    const PaddedRecord record(data, size, kTextOffset + 1);
    const char* text = record.bytes + kTextOffset;
    const void* brace = memchr(text, '}', record.size);
    const size_t length = brace == nullptr
                                  ? record.size
                                  : static_cast<size_t>(static_cast<const char*>(brace) - text);
    Log::info("write_srinfo_last", "store to ascii text (%d bytes)\n", static_cast<int>(length));
    const ssize_t written = write_all(fd, text, length + 1);
    if (fsync(fd) < 0) Log::error("write_srinfo_last", "ERR! fsync(srinfo) fail\n");
    return static_cast<int>(written);
}

int SrinfoVelo::write_srinfo_file(int fd, char* data, unsigned int size) {
    constexpr char kTag[] = "write_srinfo_file";
    const PaddedRecord record(data, size, (kRow - size % kRow) % kRow);
    char stamp[kNameSize];
    const tm now = local_now();
    strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &now);
    char header[sizeof(stamp) + sizeof("[]\n")];
    format_text(header, "[%s]\n", stamp);
    write_all(fd, header, strlen(header));
    Log::info(kTag, "store to hex ascii text size=(0x%x)\n", record.size);
    for (unsigned offset = 0; offset < record.size; offset += kRow) {
        const char* row = record.bytes + offset;
        char text[kRow + 1] = {};
        for (unsigned i = 0; i < kRow; ++i)
            text[i] = tochar(row[i]);
        write_row(fd, offset, row, text);
    }
    write_all(fd, "\n", 1);
    if (fsync(fd) < 0) Log::error(kTag, "ERR! fsync(srinfo_hex) fail\n");
    flush_directory(Log::get_log_dir());
    Log::info(kTag, "store done\n");
    return static_cast<int>(record.size);
}

}  // namespace rvd

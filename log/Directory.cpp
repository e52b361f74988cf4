// The log directory: created on demand, refused while there is too little free space.
#include <errno.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include "log/Log.h"
#include "util/Text.h"

namespace rvd {

namespace {

constexpr char kLogDir[] = RVD_LOG_DIRECTORY;
constexpr char kVersion[] = "RVD-V3-20200928R1";
constexpr char kLogGroup[] = "log";

constexpr int kMaxRetries = 5;
constexpr unsigned kRetryPause = 1;  // s
constexpr mode_t kDirMode = 0775;
constexpr size_t kGroupSize = 4096;  // a group entry with its members

char log_root[] = "/data";
char log_dir[kPathSize] = RVD_LOG_DIRECTORY;

void set_log_group(const char* path) {
    group entry = {};
    group* found = nullptr;
    char strings[kGroupSize];
    if (getgrnam_r(kLogGroup, &entry, strings, sizeof(strings), &found) != 0 || found == nullptr) {
        return;
    }
    errno = 0;
    const int changed = chown(path, static_cast<uid_t>(-1), entry.gr_gid);
    Log::error("create_log_directory", "log path (%s) gid(%d) changed(%d)\n", path,
               static_cast<int>(entry.gr_gid), changed);
}

}  // namespace

char* Log::get_log_root() {
    return log_root;
}

char* Log::get_log_dir() {
    return log_dir;
}

void Log::update_log_dir() {
    format_text(log_dir, "%s", kLogDir);
}

const char* Log::get_rvd_version() {
    return kVersion;
}

int Log::create_log_directory(const char* path) {
    int failed_creations = 0;
    int failed_checks = 0;
    while (debug_level != 0) {
        const int created = create_directory(path);
        if (created < 0) {
            if (failed_creations++ == kMaxRetries) {
                info("create_log_directory", "default path create fail %s\n", path);
                return created;
            }
            sleep(kRetryPause);
            continue;
        }
        const int checked = check_log_directory(path);
        if (checked >= 0) break;
        if (failed_checks++ == kMaxRetries) {
            info("create_log_directory", "check_log_directory err(%d)\n", checked);
            return checked;
        }
        sleep(kRetryPause);
    }
    set_log_group(path);
    return 0;
}

int Log::create_directory(const char* path) {
    struct stat status = {};
    if (stat(kLogDir, &status) == 0) {
        if (S_ISDIR(status.st_mode)) return 0;
        info("create_directory", "(%s) is not a directory\n", path);
        return -EFAULT;
    }
    // EEXIST: a saving thread may create it at the same time.
    const int created = mkdir(kLogDir, kDirMode);
    if (created < 0 && errno != EEXIST) {
        error("create_directory", "log path create fail err=%d\n", created);
        return -1;
    }
    info("create_directory", "log path (%s) created\n", kLogDir);
    return 0;
}

int Log::check_log_directory(const char* path) {
    struct statfs fs = {};
    if (statfs(path, &fs) < 0) {
        info("check_log_directory", "statvfs failed\n");
        return -1;
    }
    const uint64_t block_size = static_cast<uint64_t>(fs.f_bsize);
    const uint64_t free_blocks = static_cast<uint64_t>(fs.f_bfree);
    const long free_mb = static_cast<long>((block_size / 1024) * (free_blocks / 1024));
    info("check_log_directory", "Block size: %lu, Free Block: %lu, Free Size: %ld MB\n",
         static_cast<unsigned long>(block_size), static_cast<unsigned long>(free_blocks), free_mb);
    info("check_log_directory", "%s: freespace %ld / %d MB\n", path, free_mb, kMinLogDirMb);
    if (free_mb < kMinLogDirMb) {
        info("check_log_directory", "%s: under freespace %dMB\n", path, kMinLogDirMb);
        return -ENOSPC;
    }
    return 0;
}

int Log::check_fs_free_space(const char* path) {
    struct statfs fs = {};
    if (statfs(path, &fs) < 0) {
        const int result = -errno;
        error("check_fs_free_space", "statfs(%s) fail\n", path);
        return result;
    }
    const int block_size = static_cast<int>(fs.f_bsize);
    const int free_blocks = static_cast<int>(fs.f_bfree);
    const int free_mb = static_cast<int>(static_cast<int64_t>(block_size >> 10) *
                                         static_cast<int64_t>(free_blocks >> 10));
    info("check_fs_free_space", "%s: %d (block size) * %d (free blocks) = %d MB (free space)\n",
         path, block_size, free_blocks, free_mb);
    if (free_mb < kMinLogRootMb) {
        info("check_fs_free_space", "ERR! %s: free space < %d MB\n", path, kMinLogRootMb);
        return -ENOSPC;
    }
    return 0;
}

}  // namespace rvd

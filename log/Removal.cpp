// Removes saved logs, only inside the log directory. Only the test actions use this.
#include <dirent.h>
#include <errno.h>
#include <ftw.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "log/Log.h"
#include "util/Text.h"

namespace rvd {

namespace {

constexpr char kRemovable[] = RVD_LOG_DIRECTORY;
constexpr size_t kRemovableLength = sizeof(kRemovable) - 1;
constexpr int kWalkDescriptors = 64;

constexpr const char* kLogKinds[] = {"dmesg", "dumpstate"};
constexpr int kLogKindCount = sizeof(kLogKinds) / sizeof(kLogKinds[0]);

struct CloseDir {
    void operator()(DIR* directory) const { closedir(directory); }
};

}  // namespace

int Log::remove_directory(const char* path) {
    if (strncmp(path, kRemovable, kRemovableLength) != 0) {
        error("remove_directory", "Tried to remove false path: %s, %lu\n", path,
              static_cast<unsigned long>(kRemovableLength));
        return -EINVAL;
    }
    // bionic's nftw follows a symbolic link given as the root; the link's target must stay.
    struct stat root;
    if (lstat(path, &root) == 0 && S_ISLNK(root.st_mode)) {
        return unlink_cb(path, &root, FTW_SL, nullptr);
    }
    return nftw(path, unlink_cb, kWalkDescriptors, FTW_DEPTH | FTW_PHYS);
}

int Log::unlink_cb(const char* path, const struct stat*, int, FTW*) {
    const int result = remove(path);
    if (result != 0) perror(path);
    return result;
}

void Log::remove_logs(int kind, const char* directory, const char* name) {
    if (kind < 0 || kind >= kLogKindCount) return;
    info("remove_logs", "remove logs under %s\n", directory);
    const std::unique_ptr<DIR, CloseDir> listing(opendir(directory));
    if (!listing) {
        info("remove_logs", "DIR doesn't exist %s\n", directory);
        return;
    }
    char pattern[kPathSize];
    format_text(pattern, "%s_%s_", kLogKinds[kind], name);
    while (const dirent* entry = readdir(listing.get())) {
        if (strstr(entry->d_name, pattern) == nullptr) continue;
        char path[kPathSize];
        // A truncated path could name another file.
        if (format_text(path, "%s/%s", directory, entry->d_name)) unlink(path);
    }
}

}  // namespace rvd

// A directory, walked without following a link.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "report/evidence/evidence.h"

namespace rvd::report {

namespace {

constexpr int kDepthLimit = 16;
constexpr size_t kEntryLimit = 2'000'000;

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};

class Walk {
  public:
    std::vector<File> files;

    void enter(int fd, const std::string& prefix, int depth) {
        const std::unique_ptr<DIR, DirectoryCloser> directory(fdopendir(fd));
        if (!directory) {
            close(fd);
            return;
        }
        while (const dirent* entry = readdir(directory.get())) {
            if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
            if (files.size() >= kEntryLimit)
                throw Unreadable("more than " + std::to_string(kEntryLimit) + " files");
            visit(dirfd(directory.get()), prefix + entry->d_name, entry->d_name, depth);
        }
    }

  private:
    void visit(int parent, const std::string& path, const char* name, int depth) {
        struct stat status = {};
        File file;
        file.path = path;
        file.name = parse_name(name);
        if (fstatat(parent, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
            file.trouble = strerror(errno);
        } else if (S_ISDIR(status.st_mode)) {
            const int fd =
                    depth >= kDepthLimit
                            ? -1
                            : openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (fd >= 0) enter(fd, path + '/', depth + 1);
            if (fd >= 0 || depth >= kDepthLimit) return;
            file.trouble = strerror(errno);
        } else if (S_ISLNK(status.st_mode)) {
            file.trouble = "a link, which is not followed";
        } else if (!S_ISREG(status.st_mode)) {
            file.trouble = "not a file";
        } else if (faccessat(parent, name, R_OK, AT_EACCESS) != 0) {
            file.trouble = strerror(errno);
        }
        file.size = static_cast<uint64_t>(status.st_size);
        files.push_back(std::move(file));
    }
};

}  // namespace

std::vector<File> list_directory(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) throw Unreadable(path + ": " + strerror(errno));
    Walk walk;
    walk.enter(fd, "", 0);
    return std::move(walk.files);
}

}  // namespace rvd::report

#include "report/evidence/evidence.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "util/ScopedFd.h"

namespace rvd::report {

namespace {

std::string directory_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
}

}  // namespace

Evidence::Evidence(const std::string& path) : path_(path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) throw Unreadable(path + ": " + strerror(errno));
    files_ = S_ISDIR(status.st_mode) ? list_directory(path) : list_archive(path);
    keep_what_belongs();
    if (files_.empty()) throw Unreadable(path + ": nothing in it was left by rvd");
    std::sort(files_.begin(), files_.end(),
              [](const File& a, const File& b) { return a.path < b.path; });
}

void Evidence::keep_what_belongs() {
    std::set<std::string> homes;
    for (const File& file : files_) {
        if (file.name.kind != Kind::kUnknown && file.name.kind != Kind::kAndroidLog)
            homes.insert(directory_of(file.path));
    }
    const auto foreign = [&](const File& file) {
        return file.name.kind == Kind::kUnknown && homes.count(directory_of(file.path)) == 0 &&
               !leads_outside(file.path);
    };
    files_.erase(std::remove_if(files_.begin(), files_.end(), foreign), files_.end());
}

std::string Evidence::text(File& file) const {
    return read_at(file, 0, std::min(file.size, kTextLimit));
}

std::string Evidence::tail(File& file, uint64_t limit) const {
    const uint64_t length = std::min(file.size, limit);
    return read_at(file, file.size - length, length);
}

std::string Evidence::read_at(File& file, uint64_t offset, uint64_t length) const {
    if (!file.trouble.empty()) return {};
    if (file.kept) return offset <= file.kept->size() ? file.kept->substr(offset, length) : "";
    const ScopedFd fd(open((path_ + '/' + file.path).c_str(),
                           O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    std::string text;
    if (fd.valid()) {
        text.resize(length);
        size_t filled = 0;
        while (filled < length) {
            const ssize_t count = pread(fd.get(), text.data() + filled, length - filled,
                                        static_cast<off_t>(offset + filled));
            if (count < 0 && errno == EINTR) continue;
            if (count == 0) errno = EIO;  // it was cut meanwhile
            if (count <= 0) break;
            filled += static_cast<size_t>(count);
        }
        if (filled == length) return text;
    }
    file.trouble = strerror(errno);
    return {};
}

bool leads_outside(const std::string& path) {
    return path.empty() || path[0] == '/' || path == ".." || path.compare(0, 3, "../") == 0 ||
           path.find("/../") != std::string::npos ||
           (path.size() >= 3 && path.compare(path.size() - 3, 3, "/..") == 0);
}

}  // namespace rvd::report

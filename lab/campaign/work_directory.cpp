#include "lab/campaign/work_directory.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "lab/base.h"

namespace fs = std::filesystem;

namespace rvd::lab {

namespace {

constexpr char kPrefix[] = "rvd-lab.";
constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

fs::path temporary_directory() {
    const char* const named = getenv("TMPDIR");
    if (named != nullptr && *named == '\0') return "/tmp";
    std::error_code error;
    const fs::path path = fs::temp_directory_path(error);
    if (error) throw Error("TMPDIR names no directory");
    return path;
}

// Removes the temporary directories of killed runs. They are empty: their content was mounted in
// the run's namespace.
void remove_stale_directories() {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(temporary_directory(), ignored)) {
        if (entry.path().filename().string().find(kPrefix) != 0) continue;
        const ScopedFd lock(open(entry.path().c_str(), kDirectory));
        if (flock(lock.get(), LOCK_EX | LOCK_NB) == 0) rmdir(entry.path().c_str());
    }
}

bool others_write(const fs::path& directory) {
    struct stat status {};
    if (stat(directory.c_str(), &status) != 0) throw_errno("cannot write to " + directory.string());
    return (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

void refuse_foreign_links(const fs::path& path) {
    for (fs::path at = fs::absolute(path); at.has_relative_path(); at = at.parent_path()) {
        std::error_code ignored;
        if (fs::is_symlink(at, ignored) && others_write(at.parent_path()))
            throw Error(at.string() + " is a link in a directory that others can write to");
    }
}

}  // namespace

WorkDirectory::WorkDirectory(const std::string& named) : path_(named), temporary_(named.empty()) {
    if (!temporary_) {
        std::error_code error;
        fs::create_directories(path_, error);
        if (error) throw Error("cannot make the directory " + path_ + ": " + error.message());
        path_ = fs::canonical(path_);
        if (!lock()) throw Error(path_ + " is in use by another run");
        return;
    }
    remove_stale_directories();
    do {  // another run may remove it before it is locked
        path_ = temporary_directory() / (std::string(kPrefix) + "XXXXXX");
        if (mkdtemp(path_.data()) == nullptr) throw_errno("cannot make " + path_);
    } while (!lock());
}

WorkDirectory::~WorkDirectory() {
    if (temporary_) rmdir(path_.c_str());
}

bool WorkDirectory::lock() {
    lock_.reset(open(path_.c_str(), kDirectory));
    if (!lock_.valid() && errno != ENOENT) throw_errno("cannot use " + path_);
    struct stat status {};
    return lock_.valid() && flock(lock_.get(), LOCK_EX | LOCK_NB) == 0 &&
           fstat(lock_.get(), &status) == 0 && status.st_nlink > 0;
}

OutputFile::OutputFile(const std::string& path) : path_(path) {
    if (path.empty()) return;
    refuse_foreign_links(path);
    const fs::path directory = fs::absolute(path).parent_path();
    fd_ = open(path.c_str(),
               O_WRONLY | O_CREAT | O_CLOEXEC | (others_write(directory) ? O_NOFOLLOW : 0), 0666);
    if (fd_ < 0) throw_errno("cannot write " + path);
}

void OutputFile::write(const std::string& text) const {
    struct stat status {};
    fstat(fd_, &status);
    if (S_ISREG(status.st_mode) && (lseek(fd_, 0, SEEK_SET) != 0 || ftruncate(fd_, 0) != 0))
        throw_errno("cannot write " + path_);
    append(text);
}

void OutputFile::append(const std::string& text) const {
    for (size_t at = 0; at < text.size();) {
        const ssize_t n = ::write(fd_, text.data() + at, text.size() - at);
        if (n < 0 && errno != EINTR) throw_errno("cannot write " + path_);
        at += n > 0 ? static_cast<size_t>(n) : 0;
    }
}

}  // namespace rvd::lab

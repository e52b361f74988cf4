// The directory in which phones are built, and the files that the user names for results.
#pragma once

#include <string>

#include "util/ScopedFd.h"

namespace rvd::lab {

// A directory that is locked while this object or a process forked from it lives. Several phones
// can use it at once: each is mounted over it in a mount namespace of its own.
class WorkDirectory {
  public:
    // Uses the named directory, or a temporary one that the destructor removes. Throws Error, also
    // if another run uses it.
    explicit WorkDirectory(const std::string& named);
    ~WorkDirectory();
    WorkDirectory(const WorkDirectory&) = delete;
    WorkDirectory& operator=(const WorkDirectory&) = delete;

    const std::string& path() const { return path_; }

  private:
    bool lock();

    std::string path_;
    const bool temporary_;
    ScopedFd lock_;
};

// A file for results. It is opened before the run and keeps its old content until the results are
// written; it may be a device or a pipe. A symbolic link that another user could have made is not
// followed.
class OutputFile {
  public:
    OutputFile() = default;
    explicit OutputFile(const std::string& path);

    explicit operator bool() const { return fd_ >= 0; }
    void write(const std::string& text) const;  // replaces the content
    void append(const std::string& text) const;

  private:
    std::string path_;
    int fd_ = -1;
};

}  // namespace rvd::lab

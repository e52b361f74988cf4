// Where runs put things on this machine: the directory that phones are built in, and the files that
// the user names for results.
#pragma once

#include <string>

#include "util/ScopedFd.h"

namespace rvd::lab {

// A directory that is locked while this object or a process that was forked from it lives. Phones
// that are not kept share it: each is mounted there in a namespace of its own.
class WorkDirectory {
  public:
    // The one named, which stays; where none is named, a temporary one, gone with this object.
    // Throws Error, also where another run has it.
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

// A file for results. It is opened before the run and keeps its content until there are some; a
// device or a pipe is written as it is. No link is followed that somebody else could have made.
class OutputFile {
  public:
    OutputFile() = default;
    explicit OutputFile(const std::string& path);

    explicit operator bool() const { return fd_ >= 0; }
    void write(const std::string& text) const;  // instead of what is there
    void append(const std::string& text) const;

  private:
    std::string path_;
    int fd_ = -1;
};

}  // namespace rvd::lab

// Where the Android log's lines go on a machine that is no phone.
#pragma once

#include <stddef.h>

namespace rvd::host {

// A log file, opened once for the life of the process, or standard error.
class LogSink {
  public:
    // Appends to the file at `path`; standard error where it is null, empty or cannot be opened.
    explicit LogSink(const char* path);
    // Writes to a descriptor of the caller's, which may be one that blocks.
    explicit LogSink(int fd) : fd_(fd) {}

    // One line, in one write where the sink takes it whole. Waits at most a moment for a reader;
    // the line is lost then. May change errno.
    void write_line(const char* line, size_t size) const;

  private:
    bool ready() const;

    int fd_;
    bool may_block_ = true;
};

}  // namespace rvd::host

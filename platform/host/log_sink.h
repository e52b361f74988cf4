// The output of the Android log on a host.
#pragma once

#include <stddef.h>

namespace rvd::host {

// A log file, opened once for the life of the process, or standard error.
class LogSink {
  public:
    // Appends to the file at `path`; to standard error if it is null, empty or cannot be opened.
    explicit LogSink(const char* path);
    // Writes to `fd`, which the caller owns and which may block.
    explicit LogSink(int fd) : fd_(fd) {}

    // Writes one line, in one write unless that is short. Waits up to 100 ms for the reader, then
    // drops the line. May change errno.
    void write_line(const char* line, size_t size) const;

  private:
    bool ready() const;

    int fd_;
    bool may_block_ = true;
};

}  // namespace rvd::host

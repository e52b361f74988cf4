// Collects the log lines of the daemon's code that runs in this process, in place of the kernel
// log.
#pragma once

#include <string>
#include <vector>

#include "util/ScopedFd.h"

namespace rvd::check {

// Only one may exist at a time. The Android log is not affected.
class Capture {
  public:
    Capture();
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    // The lines since the last call, as "tag: text"; errors begin with "(ERR! reason) ".
    std::vector<std::string> take();

  private:
    const int sink_before_;
    ScopedFd lines_;
    off_t taken_ = 0;
};

}  // namespace rvd::check

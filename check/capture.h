// Keeps the daemon's log lines while its code runs here, instead of writing them to the kernel log.
#pragma once

#include <string>
#include <vector>

#include "util/ScopedFd.h"

namespace rvd::check {

// One at a time. The Android log is not affected.
class Capture {
  public:
    Capture();
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    // The lines since the last call, as "tag: text"; an error's begins with "(ERR! reason) ".
    std::vector<std::string> take();

  private:
    const int sink_before_;
    ScopedFd lines_;
    off_t taken_ = 0;
};

}  // namespace rvd::check

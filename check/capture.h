// The daemon's lines, kept while its code runs on somebody else's behalf, instead of in the
// kernel's log.
#pragma once

#include <string>
#include <vector>

#include "util/ScopedFd.h"

namespace rvd::check {

// One at a time. The Android log is not its concern.
class Capture {
  public:
    Capture();
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    // What was said since the last call: "tag: text", behind "(ERR! reason) " where it is an error.
    std::vector<std::string> take();

  private:
    const int sink_before_;
    ScopedFd lines_;
    off_t taken_ = 0;
};

}  // namespace rvd::check

// The daemon's records in the kernel's own log, as any reader of it gets them.
#pragma once

#include <string>

namespace rvd::lab {

class KernelLog {
  public:
    KernelLog();  // reads what comes from now on; throws Unable

    int fd() const { return fd_; }  // readable while there are records

    // Passes on the next of the daemon's records; false if there is none now. Throws Unable where
    // records were lost.
    bool next(int& level, std::string& text);

    // The daemon's lines that this log or `android` lacks. Its threads' lines have no order.
    std::string differences(const std::string& android) const;

  private:
    const int fd_;
    std::string lines_;  // as the Android log has them
};

}  // namespace rvd::lab

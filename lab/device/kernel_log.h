// The daemon's records in the kernel's own log, as any reader of it gets them.
#pragma once

#include <functional>
#include <string>

namespace rvd::lab {

class KernelLog {
  public:
    // Reads what comes from now on. Throws Unable.
    KernelLog();
    ~KernelLog();
    KernelLog(const KernelLog&) = delete;
    KernelLog& operator=(const KernelLog&) = delete;

    int fd() const { return fd_; }  // readable while there are records

    // Passes on the next of the daemon's records; false if there is none now. Throws Unable where
    // records were lost.
    bool next(int& level, std::string& text);

    // The daemon's lines that this log or `android` lacks. Their order is left to its threads.
    std::string differences(const std::string& android) const;

  private:
    const int fd_;
    std::string lines_;  // as the Android log has them
};

}  // namespace rvd::lab

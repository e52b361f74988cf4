// Sole owner of one descriptor within a scope. The boot and dump records own the lasting ones.
#pragma once

#include <unistd.h>

#include <utility>

namespace rvd {

class ScopedFd {
  public:
    explicit ScopedFd(int fd = -1) : fd_(fd) {}
    ScopedFd(ScopedFd&& other) noexcept : fd_(other.release()) {}
    ScopedFd& operator=(ScopedFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ~ScopedFd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }

    // Passes ownership of the descriptor to the caller.
    int release() { return std::exchange(fd_, -1); }

    void reset(int fd = -1) {
        if (fd_ >= 0) close(fd_);
        fd_ = fd;
    }

  private:
    int fd_;
};

}  // namespace rvd

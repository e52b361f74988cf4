#include "platform/host/log_sink.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace rvd::host {

namespace {

// How long to wait for the reader of a full pipe.
constexpr int kReaderTimeoutMs = 100;

}  // namespace

LogSink::LogSink(const char* path) : fd_(STDERR_FILENO) {
    if (path == nullptr || *path == '\0') return;
    const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, 0644);
    if (fd < 0) return;
    fd_ = fd;
    may_block_ = false;
}

// Standard error may be a pipe that nobody reads, where a write would block. A pipe that polls as
// writable has space for more than a line.
bool LogSink::ready() const {
    if (!may_block_) return true;
    pollfd sink = {fd_, POLLOUT, 0};
    return poll(&sink, 1, kReaderTimeoutMs) == 1 && (sink.revents & POLLOUT) != 0;
}

void LogSink::write_line(const char* line, size_t size) const {
    while (size > 0 && ready()) {
        const ssize_t put = write(fd_, line, size);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return;
        line += put;
        size -= static_cast<size_t>(put);
    }
}

}  // namespace rvd::host

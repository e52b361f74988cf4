#include "util/Io.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "util/ScopedFd.h"

namespace rvd {

ssize_t write_all(int fd, const void* data, size_t size) {
    const char* bytes = static_cast<const char*>(data);
    size_t done = 0;
    while (done < size) {
        const ssize_t count = write(fd, bytes + done, size - done);
        if (count > 0) {
            done += static_cast<size_t>(count);
        } else if (count == 0) {
            errno = ENOSPC;
            return -1;
        } else if (errno != EINTR) {
            return -1;
        }
    }
    return static_cast<ssize_t>(size);
}

int truncate_at_offset(int fd) {
    const off_t end = lseek(fd, 0, SEEK_CUR);
    return end < 0 ? -1 : ftruncate(fd, end);
}

void flush_directory(const char* directory) {
    const ScopedFd fd(open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.valid()) fsync(fd.get());
}

}  // namespace rvd

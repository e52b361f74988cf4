// Complete writes, truncation of overwritten files, and durable directory entries.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace rvd {

// Writes all of `size` bytes, continuing after a short or interrupted write. Returns `size`, or -1
// with errno set; a write of 0 bytes counts as ENOSPC.
ssize_t write_all(int fd, const void* data, size_t size);

// Truncates a file at its current offset, where the rest of older, longer content may follow.
// Returns 0, or -1 with errno set.
int truncate_at_offset(int fd);

// Makes created, renamed and removed entries of a directory durable. Failures are ignored:
// without this call only a power cut can lose the change.
void flush_directory(const char* directory);

}  // namespace rvd

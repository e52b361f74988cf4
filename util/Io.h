// Writes that go on after a short one, the end of a file that is written over, and names that stay.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace rvd {

// Writes all of `size` bytes, going on after a short or an interrupted write. Returns `size`, or -1
// with errno set; a write that takes nothing counts as a full disk.
ssize_t write_all(int fd, const void* data, size_t size);

// Ends a file at its current offset: what an earlier, longer content left behind is cut off.
// Returns 0, or -1 with errno set.
int truncate_here(int fd);

// Makes the names in a directory durable: without this a power cut may take away a file that was
// created, or give back a name that it had. Silent, as nothing hangs on it but that.
void flush_names(const char* directory);

}  // namespace rvd

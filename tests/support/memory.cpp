// Counts and limits the allocations of the daemon's code. The linker (--wrap) redirects the C
// calls.
#include <errno.h>
#include <stdlib.h>

#include <new>

#include "tests/support/kernel.h"

namespace rvd::test {

std::atomic<uint64_t> allocations;
std::atomic<size_t> largest_block{SIZE_MAX};

namespace {

bool may_allocate(size_t size) {
    ++allocations;
    return size <= largest_block;
}

}  // namespace

}  // namespace rvd::test

using rvd::test::may_allocate;

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return may_allocate(size) ? operator new(size) : nullptr;
}

extern "C" {

void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size) {
    return may_allocate(count * size) ? __real_calloc(count, size) : nullptr;
}

int __real_posix_memalign(void** block, size_t alignment, size_t size);
int __wrap_posix_memalign(void** block, size_t alignment, size_t size) {
    return may_allocate(size) ? __real_posix_memalign(block, alignment, size) : ENOMEM;
}

}  // extern "C"

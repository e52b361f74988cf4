// The heap as the daemon's code uses it, counted and bounded. The linker wraps the C calls.
#include <errno.h>
#include <stdlib.h>

#include <new>

#include "tests/support/kernel.h"

namespace rvd::test {

std::atomic<uint64_t> allocations;
std::atomic<size_t> largest_block{SIZE_MAX};

namespace {

bool grants(size_t size) {
    ++allocations;
    return size <= largest_block;
}

}  // namespace

}  // namespace rvd::test

using rvd::test::grants;

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return grants(size) ? operator new(size) : nullptr;
}

extern "C" {

void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size) {
    return grants(count * size) ? __real_calloc(count, size) : nullptr;
}

int __real_posix_memalign(void** block, size_t alignment, size_t size);
int __wrap_posix_memalign(void** block, size_t alignment, size_t size) {
    return grants(size) ? __real_posix_memalign(block, alignment, size) : ENOMEM;
}

}  // extern "C"

// Ownership of malloc'ed memory: the daemon asks for large blocks where a refusal has an answer.
#pragma once

#include <stdlib.h>

#include <memory>

namespace rvd {

struct Free {
    void operator()(void* block) const { free(block); }
};

template <class T>
using HeapPtr = std::unique_ptr<T, Free>;

// Uninitialised bytes that begin on a cache line, which the kernel's copies are fastest to; or
// null.
inline HeapPtr<char> heap_bytes(size_t size) {
    constexpr size_t kCacheLine = 64;
    void* bytes = nullptr;
    return HeapPtr<char>(posix_memalign(&bytes, kCacheLine, size) == 0 ? static_cast<char*>(bytes)
                                                                       : nullptr);
}

}  // namespace rvd

// Ownership of malloc'ed memory. Large buffers come from malloc: the daemon handles its failure,
// and has no exceptions.
#pragma once

#include <stdlib.h>

#include <memory>

namespace rvd {

struct Free {
    void operator()(void* block) const { free(block); }
};

template <class T>
using HeapPtr = std::unique_ptr<T, Free>;

// Uninitialised bytes, aligned to a cache line, where the kernel copies fastest. Null if there is
// no memory.
inline HeapPtr<char> heap_bytes(size_t size) {
    constexpr size_t kCacheLine = 64;
    void* bytes = nullptr;
    return HeapPtr<char>(posix_memalign(&bytes, kCacheLine, size) == 0 ? static_cast<char*>(bytes)
                                                                       : nullptr);
}

}  // namespace rvd

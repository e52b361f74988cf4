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

// Uninitialised bytes, or null.
inline HeapPtr<char> heap_bytes(size_t size) {
    return HeapPtr<char>(static_cast<char*>(malloc(size)));
}

}  // namespace rvd

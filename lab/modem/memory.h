// The memory of a process, read and written from outside.
#pragma once

#include <string.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <string>

#include "lab/modem/modem.h"

namespace rvd::lab {

class ProcessMemory : public Memory {
  public:
    explicit ProcessMemory(pid_t pid) : pid_(pid) {}

    bool read(uint64_t address, void* out, size_t size) override {
        iovec local = {out, size};
        iovec remote = {reinterpret_cast<void*>(address), size};
        return process_vm_readv(pid_, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
    }

    bool write(uint64_t address, const void* data, size_t size) override {
        iovec local = {const_cast<void*>(data), size};
        iovec remote = {reinterpret_cast<void*>(address), size};
        return process_vm_writev(pid_, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
    }

    // A text up to its NUL, at most a path's length; read page by page, for the next may be
    // missing.
    std::string text(uint64_t address) {
        constexpr uint64_t kPage = 4096;
        std::string result;
        while (result.size() < kPage) {
            char piece[kPage];
            const uint64_t size = kPage - address % kPage;
            if (!read(address, piece, size)) break;
            const std::string part(piece, strnlen(piece, size));
            result += part;
            if (part.size() < size) break;
            address += size;
        }
        return result;
    }

  private:
    pid_t pid_;
};

}  // namespace rvd::lab

// What the daemon's targets stand on: bytes to draw from, a phone to run on, and checks that end
// the process. No pause takes time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>

#include "main/RvdArgs.h"
#include "tests/support/kernel.h"
#include "tests/support/private_root.h"

namespace rvd {

namespace fuzz {

// The bytes of one run, drawn from the front; zeros once they are used up.
class Input {
  public:
    Input(const uint8_t* data, size_t size) : left_(reinterpret_cast<const char*>(data), size) {}

    template <class T>
    T take() {
        T value = {};
        const std::string bytes = take_bytes(sizeof(value));
        memcpy(&value, bytes.data(), bytes.size());
        return value;
    }
    // Fewer than `size` at the end.
    std::string take_bytes(size_t size) {
        const std::string_view taken = left_.substr(0, size);
        left_.remove_prefix(taken.size());
        return std::string(taken);
    }
    // Up to `end`, which is dropped, or all that is left.
    std::string take_until(char end) {
        const std::string taken = take_bytes(left_.find(end));
        take_bytes(1);
        return taken;
    }
    bool empty() const { return left_.empty(); }

  private:
    std::string_view left_;
};

// Ends the process, as a finding, unless `holds`.
void require(bool holds, const char* what);

// Whether the text of a fixed field is terminated.
template <size_t N>
bool is_text(const char (&field)[N]) {
    return memchr(field, '\0', N) != nullptr;
}

// One run of the daemon's code, with a modem named as the command line does, and its files in /efs.
// When it ends, no descriptor may be left open and the modem's records must be closed.
class Run {
  public:
    explicit Run(bool external);
    ~Run();
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    // Opens a node of the modem's; without it a node is a file.
    std::function<int()> open_node;
    // Count down at each call that can fail; the call that takes one to 0 does.
    uint16_t faults[2] = {0, 0};

  private:
    int lowest_free_;
};

}  // namespace fuzz
}  // namespace rvd

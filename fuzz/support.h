// What the daemon's targets stand on: bytes to draw from, a phone to run on, and checks that end
// the process. Requests to the modem's driver are answered out of the input, and no pause takes
// time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "main/RvdArgs.h"
#include "tests/support/private_root.h"

namespace rvd {

class BootDump;
class Srinfo;

namespace fuzz {

// The bytes of one run, drawn from the front; zeros once they are used up.
class Input {
  public:
    Input(const uint8_t* data, size_t size) : left_(reinterpret_cast<const char*>(data), size) {}
    explicit Input(std::string_view bytes) : left_(bytes) {}

    template <class T>
    T take() {
        T value = {};
        const std::string_view bytes = take_bytes(sizeof(value));
        memcpy(&value, bytes.data(), bytes.size());
        return value;
    }
    // Fewer than `size` at the end.
    std::string_view take_bytes(size_t size) {
        const std::string_view taken = left_.substr(0, size);
        left_.remove_prefix(taken.size());
        return taken;
    }
    // Up to `end`, which is dropped, or all that is left.
    std::string_view take_until(char end) {
        const std::string_view taken = take_bytes(left_.find(end));
        take_bytes(1);
        return taken;
    }
    std::string_view rest() { return take_bytes(left_.size()); }
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

// A modem as the command line sets it up. Both stay for the life of the process; the registry holds
// the external one.
struct Modem {
    RvdArgs args;
    BootDump* controller;
    Srinfo* srinfo;
};
Modem& tq720();
Modem& vk880();

// One run: the driver answers out of `answers`. When it ends, no descriptor may be left open and
// both modems' records must be closed.
class Run {
  public:
    explicit Run(Input* answers);
    ~Run();
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    // Whether this was the last request that the driver granted.
    static bool granted_last(unsigned request);

  private:
    int lowest_free_;
};

void set_property(const char* name, std::string_view value);

}  // namespace fuzz
}  // namespace rvd

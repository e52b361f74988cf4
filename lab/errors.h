// Why no run is possible.
#pragma once

#include <stdexcept>
#include <string>

namespace rvd::lab {

// Input, or a machine, with which no run is possible; the text says what to do.
struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// This machine's kernel does not allow what the lab needs.
struct Unsupported : Error {
    using Error::Error;
};

// These throw "what: strerror(errno)".
[[noreturn]] void throw_errno(const std::string& what);
[[noreturn]] void throw_unsupported_errno(const std::string& what);

}  // namespace rvd::lab

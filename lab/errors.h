// The lab's exceptions.
#pragma once

#include <errno.h>
#include <string.h>

#include <stdexcept>
#include <string>

namespace rvd::lab {

// The input or the machine makes a run impossible; the message says how.
struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// This machine's kernel does not provide or permit what the lab needs.
struct Unsupported : Error {
    using Error::Error;
};

// Throw "what: strerror(errno)".
[[noreturn]] inline void throw_errno(const std::string& what) {
    throw Error(what + ": " + strerror(errno));
}

[[noreturn]] inline void throw_unsupported_errno(const std::string& what) {
    throw Unsupported(what + ": " + strerror(errno));
}

}  // namespace rvd::lab

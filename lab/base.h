// Small things that every room of the lab uses: virtual time, packets, text, seeded content.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace rvd::lab {

// Nanoseconds: a moment is counted from the epoch, a span from 0.
using Time = int64_t;
constexpr Time kMillisecond = 1'000'000;
constexpr Time kSecond = 1'000'000'000;
constexpr Time kNever = INT64_MAX;

using Packet = std::vector<uint8_t>;

// Something about the input or the machine that makes a run impossible; the text says what to do.
struct Unable : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// This machine's kernel does not allow what the lab needs.
struct Forbidden : Unable {
    using Unable::Unable;
};

// Throw "what: strerror(errno)".
[[noreturn]] void fail_errno(const std::string& what);
[[noreturn]] void forbid_errno(const std::string& what);

std::string format(const char* text, ...) __attribute__((format(printf, 1, 2)));

// "1048576 bytes" as people say it: "1 MiB".
std::string human_size(uint64_t bytes);

// Whether a pattern matches the whole text. '*' stands for any characters, '?' for one, and
// "[a-f0]" for one of a set or, as in "toc[0]", for itself.
bool matches(std::string_view pattern, std::string_view text);

// "; did you mean "..."?" with the known word nearest to this one; empty where none is known.
std::string did_you_mean(const std::string& word, const std::vector<std::string>& known);

// "; did you mean "..."?" with the known word nearest to this one; empty where none is known.
std::string did_you_mean(const std::string& word, const std::vector<std::string>& known);

// Bytes `offset`.. of an endless seeded stream: the same however the stream is cut into pieces.
void fill_seeded(uint64_t seed, uint64_t offset, void* out, size_t size);

// The number of an errno name such as "ENOSPC"; 0 if there is no such name.
int errno_number(const std::string& name);

// Reads a whole file; empty if it can't be read.
std::string read_file(const std::string& path);

// Replaces a file at once, creating it where needed.
void write_file(const std::string& path, const std::string& content);

}  // namespace rvd::lab

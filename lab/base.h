// What every room of the lab uses: virtual time, text, seeded content, whole files.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "lab/errors.h"

namespace rvd::lab {

// Nanoseconds: a moment counts from the epoch, a span from 0.
using Time = int64_t;
constexpr Time kMillisecond = 1'000'000;
constexpr Time kSecond = 1'000'000'000;
constexpr Time kNever = INT64_MAX;

using Packet = std::vector<uint8_t>;

std::string human_size(uint64_t bytes);  // "1 MiB"

// Whether a pattern of the shell's kind matches the whole text. Its brackets are sets, as in
// "[a-f0]", or all of them stand for themselves, as in "toc[0]*".
bool matches(std::string_view pattern, std::string_view text);

// "; did you mean "..."?" with the known word nearest to this one; empty where none is known.
std::string did_you_mean(const std::string& word, const std::vector<std::string>& known);

// Copies `size` bytes from `offset` on of the endless content that a seed stands for.
void fill_seeded(uint64_t seed, uint64_t offset, void* out, size_t size);

int errno_number(const std::string& name);  // 0 where there is no such name

std::string read_file(const std::string& path);  // empty where it cannot be read
std::string read_file(int fd);                   // all of it, wherever its position is

// Replaces a file at once and follows no link. Throws Error.
void write_file(const std::string& path, const std::string& content);

}  // namespace rvd::lab

// Shared by all of the lab: virtual time, text, pseudo-random content, whole files.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "lab/errors.h"

namespace rvd::lab {

// Nanoseconds, since the epoch or as a duration.
using Time = int64_t;
constexpr Time kMillisecond = 1'000'000;
constexpr Time kSecond = 1'000'000'000;
constexpr Time kNever = INT64_MAX;

using Packet = std::vector<uint8_t>;

std::string human_size(uint64_t bytes);  // "1 MiB"

bool starts_with(std::string_view text, std::string_view prefix);

// Whether a shell pattern matches the whole text. Brackets match as a set, as in "[a-f0]", or
// literally, as in "toc[0]*".
bool matches(std::string_view pattern, std::string_view text);

// How many of the texts match a pattern, counted from index `first`.
int64_t count_matches(std::string_view pattern, const std::vector<std::string>& texts,
                      size_t first = 0);

// "; did you mean "..."?" with the nearest known word; empty if none is near.
std::string did_you_mean(const std::string& word, const std::vector<std::string>& known);

// Copies `size` bytes at `offset` of the endless pseudo-random content that a seed determines.
void fill_seeded(uint64_t seed, uint64_t offset, void* out, size_t size);

int errno_number(const std::string& name);  // 0 for an unknown name

std::string read_file(const std::string& path);  // empty if it cannot be read
std::string read_file(int fd);                   // all of it, from any position

// Replaces a file atomically and follows no symbolic link. Throws Error.
void write_file(const std::string& path, const std::string& content);

}  // namespace rvd::lab

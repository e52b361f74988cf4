#include "lab/base.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fnmatch.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <numeric>
#include <sstream>

namespace rvd::lab {

std::string human_size(uint64_t bytes) {
    auto value = static_cast<double>(bytes);
    const char* const units[] = {"bytes", "KiB", "MiB", "GiB"};
    size_t unit = 0;
    for (; value >= 1024 && unit < 3; unit++)
        value /= 1024;
    return fmt::format("{:.{}f} {}", value, std::trunc(value) == value ? 0 : 1, units[unit]);
}

bool starts_with(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

bool matches(std::string_view pattern, std::string_view text) {
    const auto terminated = [](std::string part) {  // a saved kernel log ends with a NUL
        std::replace(part.begin(), part.end(), '\0', '\1');
        return part;
    };
    std::string literal;
    for (const char c : pattern)
        literal.append(c == '[' || c == '\\' ? 1 : 0, '\\').push_back(c);
    const std::string whole = terminated(std::string(text));
    return fnmatch(terminated(literal).c_str(), whole.c_str(), 0) == 0 ||
           fnmatch(terminated(std::string(pattern)).c_str(), whole.c_str(), FNM_NOESCAPE) == 0;
}

int64_t count_matches(std::string_view pattern, const std::vector<std::string>& texts,
                      size_t first) {
    return std::count_if(texts.begin() + static_cast<ptrdiff_t>(first), texts.end(),
                         [&](const std::string& text) { return matches(pattern, text); });
}

namespace {

// Levenshtein distance.
size_t distance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (size_t i = 1; i <= a.size(); i++) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); j++) {
            const size_t swap = diagonal + (a[i - 1] != b[j - 1]);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, swap});
        }
    }
    return row[b.size()];
}

}  // namespace

std::string did_you_mean(const std::string& word, const std::vector<std::string>& known) {
    const auto nearest = std::min_element(
            known.begin(), known.end(),
            [&](const auto& a, const auto& b) { return distance(word, a) < distance(word, b); });
    // About every third character may be wrong.
    if (nearest == known.end() ||
        distance(word, *nearest) > std::max(word.size(), nearest->size()) / 3 + 1)
        return "";
    return "; did you mean \"" + *nearest + "\"?";
}

// Every eight bytes are splitmix64 of the seed and their offset.
void fill_seeded(uint64_t seed, uint64_t offset, void* out, size_t size) {
    const uint64_t end = offset + size;
    for (auto* at = static_cast<uint8_t*>(out); offset < end;) {
        uint64_t z = (seed * 0xD6E8FEB86659FD93u + offset / 8 + 1) * 0x9E3779B97F4A7C15u;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
        z ^= z >> 31;
        const uint64_t skip = offset % 8, take = std::min(end - offset, 8 - skip);
        memcpy(at, reinterpret_cast<const uint8_t*>(&z) + skip, take);
        at += take;
        offset += take;
    }
}

int errno_number(const std::string& name) {
    for (int number = 1; number < 134; number++) {
        const char* known = strerrorname_np(number);
        if (known != nullptr && name == known) return number;
    }
    return 0;
}

std::string read_file(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

std::string read_file(int fd) {
    return read_file(fmt::format("/proc/self/fd/{}", fd));
}

void write_file(const std::string& path, const std::string& content) {
    const std::string draft = path + ".new";
    const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
    const int fd = open(draft.c_str(), flags, 0644);
    const auto size = static_cast<ssize_t>(content.size());
    const bool written = fd >= 0 && write(fd, content.data(), content.size()) == size;
    if (fd < 0 || close(fd) != 0 || !written || rename(draft.c_str(), path.c_str()) != 0)
        throw_errno("cannot write " + path);
}

}  // namespace rvd::lab

#include "lab/base.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <numeric>

namespace rvd::lab {

void fail_errno(const std::string& what) {
    const int error = errno;
    throw Unable(what + ": " + strerror(error));
}

void forbid_errno(const std::string& what) {
    const int error = errno;
    throw Forbidden(what + ": " + strerror(error));
}

std::string format(const char* text, ...) {
    char buffer[1200];
    va_list arguments;
    va_start(arguments, text);
    vsnprintf(buffer, sizeof(buffer), text, arguments);
    va_end(arguments);
    return buffer;
}

std::string human_size(uint64_t bytes) {
    const char* const units[] = {"bytes", "KiB", "MiB", "GiB"};
    size_t unit = 0;
    double value = static_cast<double>(bytes);
    while (value >= 1024 && unit < 3) {
        value /= 1024;
        unit++;
    }
    const bool whole = value == static_cast<double>(static_cast<uint64_t>(value));
    return format(whole ? "%.0f %s" : "%.1f %s", value, units[unit]);
}

namespace {

// What stands between brackets, as "abc", "a-z" or "!0-9".
bool in_set(std::string_view set, char c) {
    const bool negated = !set.empty() && set[0] == '!';
    if (negated) set.remove_prefix(1);
    bool found = false;
    for (size_t i = 0; i < set.size(); i++) {
        const bool range = i + 2 < set.size() && set[i + 1] == '-';
        found = found || (range ? set[i] <= c && c <= set[i + 2] : set[i] == c);
        if (range) i += 2;
    }
    return found != negated;
}

}  // namespace

bool matches(std::string_view pattern, std::string_view text) {
    size_t p = 0, t = 0, star = std::string_view::npos, resume = 0;
    for (;;) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = ++p;
            resume = t;
            continue;
        }
        if (t == text.size()) return p == pattern.size();
        const size_t close =
                p < pattern.size() && pattern[p] == '[' ? pattern.find(']', p) : pattern.npos;
        if (close != pattern.npos && in_set(pattern.substr(p + 1, close - p - 1), text[t]) &&
            matches(pattern.substr(close + 1), text.substr(t + 1)))
            return true;
        if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
            p++;
            t++;
        } else if (star != pattern.npos) {
            p = star;
            t = ++resume;
        } else {
            return false;
        }
    }
}

namespace {

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

// A well-known 64-bit mixer: word `index` of the stream costs two multiplications.
uint64_t seeded_word(uint64_t seed, uint64_t index) {
    uint64_t z = (seed + index + 1) * 0x9E3779B97F4A7C15u;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    return z ^ (z >> 31);
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

void fill_seeded(uint64_t seed, uint64_t offset, void* out, size_t size) {
    auto* bytes = static_cast<uint8_t*>(out);
    seed *= 0xD6E8FEB86659FD93u;
    while (size > 0) {
        const uint64_t word = seeded_word(seed, offset / 8);
        const size_t skip = offset % 8;
        const size_t take = std::min(size, 8 - skip);
        memcpy(bytes, reinterpret_cast<const uint8_t*>(&word) + skip, take);
        bytes += take;
        offset += take;
        size -= take;
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
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void write_file(const std::string& path, const std::string& content) {
    const std::string draft = path + ".new";
    {
        std::ofstream file(draft, std::ios::binary | std::ios::trunc);
        file << content;
        if (!file.flush()) fail_errno("cannot write " + draft);
    }
    if (rename(draft.c_str(), path.c_str()) != 0) fail_errno("cannot write " + path);
}

}  // namespace rvd::lab

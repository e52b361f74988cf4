#include "report/print/people.h"

#include <fmt/format.h>
#include <stdio.h>
#include <unistd.h>

#include <array>
#include <chrono>

namespace rvd::report {

namespace {

bool progress_shown = false;

// Length of the UTF-8 sequence at the start of `text` that may be shown as it is; 0: none.
size_t shown_as_is(std::string_view text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    if (byte(0) >= 0x20 && byte(0) < 0x7F) return 1;
    const size_t length = byte(0) >= 0xF0 ? 4 : byte(0) >= 0xE0 ? 3 : byte(0) >= 0xC2 ? 2 : 0;
    if (length == 0 || byte(0) > 0xF4 || text.size() < length) return 0;
    uint32_t code = byte(0) & (0x7Fu >> length);
    for (size_t i = 1; i < length; i++) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
        code = code << 6 | (byte(i) & 0x3Fu);
    }
    constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kLeast[length] || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) return 0;
    const bool control = code < 0xA0;
    const bool unseen = code == 0xAD || code == 0x061C || (code >= 0x200B && code <= 0x200F) ||
                        (code >= 0x2028 && code <= 0x202E) || (code >= 0x2060 && code <= 0x206F) ||
                        code == 0xFEFF || (code & 0xFFFE) == 0xFFFE ||
                        (code >= 0xE000 && code <= 0xF8FF) || code >= 0xE0000;
    return control || unseen ? 0 : length;
}

}  // namespace

void show_progress(uint64_t count, const char* what) {
    using Clock = std::chrono::steady_clock;
    static const bool terminal = isatty(STDERR_FILENO) != 0;
    static auto next = Clock::now() + std::chrono::seconds(2);
    if (!terminal || Clock::now() < next) return;
    next = Clock::now() + std::chrono::milliseconds(200);
    progress_shown = true;
    fmt::print(stderr, "\r{} {}\033[K", count, what);
}

void end_progress() {
    if (progress_shown) fmt::print(stderr, "\r\033[K");
    progress_shown = false;
}

std::string people_size(uint64_t bytes) {
    constexpr std::array kUnits = {"bytes", "KiB", "MiB", "GiB"};
    size_t unit = 0;
    auto value = static_cast<double>(bytes);
    for (; value >= 1024 && unit + 1 < kUnits.size(); unit++)
        value /= 1024;
    if (bytes == 1) return "1 byte";
    const bool whole = value == static_cast<double>(static_cast<uint64_t>(value));
    return fmt::format(whole ? "{:.0f} {}" : "{:.1f} {}", value, kUnits[unit]);
}

std::string people_stamp(KernelTime micros) {
    return fmt::format("{}.{:06}", micros / 1'000'000, micros % 1'000'000);
}

std::string people_span(KernelTime micros) {
    const int64_t seconds = micros / 1'000'000;
    if (micros < 1'000'000) return fmt::format("{} ms", micros / 1000);
    if (seconds < 60) {
        const int64_t tenths = micros / 100'000 % 10;
        return tenths == 0 ? fmt::format("{} s", seconds) : fmt::format("{}.{} s", seconds, tenths);
    }
    if (seconds < 3600) return fmt::format("{} min {} s", seconds / 60, seconds % 60);
    return fmt::format("{} h {} min", seconds / 3600, seconds / 60 % 60);
}

std::string printable(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const size_t length = shown_as_is(text);
        if (length == 0)
            shown += fmt::format("\\x{:02x}", static_cast<unsigned char>(text[0]));
        else
            shown += text.substr(0, length);
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return shown;
}

}  // namespace rvd::report

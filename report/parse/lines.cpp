#include "report/parse/lines.h"

#include <algorithm>
#include <charconv>

namespace rvd::report {

namespace {

constexpr std::string_view kKernelPrefix = "lnkm: rvd: ";
constexpr std::string_view kAndroidPrefix = "rvd: ";
constexpr std::string_view kErrorOpen = "(ERR! ";
constexpr size_t kLongestTag = 64;

bool is_tag(std::string_view text) {
    return !text.empty() && text.size() <= kLongestTag &&
           std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '_';
           });
}

// "tag: message" or "(ERR! errno text) tag: message".
std::optional<Line> parse_message(std::string_view text) {
    Line line;
    line.whole = text;
    if (starts_with(text, kErrorOpen)) {
        const size_t close = text.find(") ");
        if (close == std::string_view::npos) return std::nullopt;
        line.error = true;
        line.error_text = text.substr(kErrorOpen.size(), close - kErrorOpen.size());
        text.remove_prefix(close + 2);
    }
    const size_t colon = text.find(':');
    if (colon == std::string_view::npos || !is_tag(text.substr(0, colon))) return std::nullopt;
    line.tag = text.substr(0, colon);
    line.message = text.substr(std::min(text.size(), colon + 2));
    return line;
}

// Behind "D/boot: ", "D/boot    ( 333): " or "10-01 12:31:17.000  1001  333  333 D boot    : ".
size_t android_message(std::string_view line) {
    const size_t tag = line.find("boot");
    if (tag == std::string_view::npos || tag == 0) return std::string_view::npos;
    const size_t colon = line.find(": ", tag);
    if (colon == std::string_view::npos || colon > tag + 24) return std::string_view::npos;
    return colon + 2;
}

}  // namespace

bool starts_with(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

bool ends_with(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

bool Line::fails() const {
    // The group of the log directory is told as an error, also where it was set.
    return (error && !ends_with(message, " changed(0)")) || starts_with(message, "ERR!");
}

KernelTime kernel_time(std::string_view line) {
    const size_t open = line.find('[');
    if (open == std::string_view::npos || open > 8) return kNoTime;
    size_t at = open + 1;
    while (at < line.size() && line[at] == ' ')
        at++;
    uint32_t seconds = 0, micros = 0;
    const char* const end = line.data() + line.size();
    const auto whole = std::from_chars(line.data() + at, end, seconds);
    if (whole.ec != std::errc() || whole.ptr == end || *whole.ptr != '.') return kNoTime;
    const auto part = std::from_chars(whole.ptr + 1, end, micros);
    if (part.ec != std::errc() || part.ptr - whole.ptr != 7 || part.ptr == end || *part.ptr != ']')
        return kNoTime;
    return KernelTime{seconds} * 1'000'000 + micros;
}

std::optional<Line> parse_line(Sink sink, std::string_view line) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    KernelTime at = kNoTime;
    if (sink == Sink::kKernel) {
        const size_t prefix = line.find(kKernelPrefix);
        if (prefix == std::string_view::npos) return std::nullopt;
        at = kernel_time(line.substr(0, prefix));
        line.remove_prefix(prefix + kKernelPrefix.size());
    } else if (sink == Sink::kAndroid) {
        const size_t message = android_message(line);
        if (message == std::string_view::npos) return std::nullopt;
        line.remove_prefix(message);
        if (!starts_with(line, kAndroidPrefix)) return std::nullopt;
        line.remove_prefix(kAndroidPrefix.size());
    }
    std::optional<Line> parsed = parse_message(line);
    if (parsed) parsed->at = at;
    return parsed;
}

void each_line(Sink sink, std::string_view text, const std::function<void(const Line&)>& take) {
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        std::string_view raw = text.substr(0, end);
        // The mark behind an earlier save into the same file.
        while (!raw.empty() && raw.front() == '\0')
            raw.remove_prefix(1);
        if (const auto line = parse_line(sink, raw)) take(*line);
        text.remove_prefix(std::min(text.size(), end + 1));
    }
}

std::string without_chance(const std::string& line) {
    const size_t descriptor = std::min(line.rfind("(fd "), line.size());
    size_t digits = 0;
    for (size_t at = 0; at < descriptor; at++) {
        digits = line[at] >= '0' && line[at] <= '9' ? digits + 1 : 0;
        if (digits == 8 && at >= 8 && line[at - 8] == '_') return line.substr(0, at - 8);
    }
    return line.substr(0, descriptor);
}

std::optional<int64_t> number_after(std::string_view message, std::string_view before) {
    const size_t at = message.find(before);
    if (at == std::string_view::npos) return std::nullopt;
    std::string_view rest = message.substr(at + before.size());
    int base = 10;
    if (starts_with(rest, "0x")) {
        base = 16;
        rest.remove_prefix(2);
    }
    int64_t value = 0;
    const auto end = std::from_chars(rest.data(), rest.data() + rest.size(), value, base);
    if (end.ec != std::errc()) return std::nullopt;
    return value;
}

std::optional<uint32_t> unsigned_after(std::string_view message, std::string_view before) {
    const auto number = number_after(message, before);
    return number ? std::optional(static_cast<uint32_t>(*number)) : std::nullopt;
}

}  // namespace rvd::report

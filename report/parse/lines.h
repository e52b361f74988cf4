// One line of the daemon, from whichever of its sinks it comes.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace rvd::report {

// Microseconds since the kernel started, as its log counts them.
using KernelTime = int64_t;
constexpr KernelTime kNoTime = -1;

// Views into the text that was read.
struct Line {
    KernelTime at = kNoTime;
    bool error = false;             // an error message, with the text of an errno
    std::string_view error_text;    // that text
    std::string_view tag, message;  // the step, and what it says
    std::string_view whole;         // "tag: message", with the errno text before it

    // Whether the step reports a failure, in either form.
    bool fails() const;
};

enum class Sink { kKernel, kAndroid, kCrashLog };

// Nothing where the line is not the daemon's.
std::optional<Line> parse_line(Sink sink, std::string_view line);

// Calls `take` for each of the daemon's lines, in order.
void each_line(Sink sink, std::string_view text, const std::function<void(const Line&)>& take);

// The kernel's time stamp of any line of its log.
KernelTime kernel_time(std::string_view line);

// A number behind `before` in a message: "size:%u" is number_after(message, "size:").
std::optional<int64_t> number_after(std::string_view message, std::string_view before);
// The same of 32 bits without a sign, which some lines log with one.
std::optional<uint32_t> unsigned_after(std::string_view message, std::string_view before);

// A line up to what is another each time: a descriptor's number, the time in a file's name.
std::string without_chance(const std::string& line);

bool starts_with(std::string_view text, std::string_view start);
bool ends_with(std::string_view text, std::string_view end);

}  // namespace rvd::report

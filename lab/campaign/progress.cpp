#include "lab/campaign/progress.h"

#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>

#include "lab/run/story_printer.h"

namespace rvd::lab {

namespace {

constexpr auto kOnTerminal = std::chrono::milliseconds(200);
constexpr auto kElsewhere = std::chrono::seconds(30);

}  // namespace

Progress::Progress(std::string what, size_t total)
    : what_(std::move(what)),
      total_(total),
      terminal_(is_capable_terminal(STDERR_FILENO)),
      start_(Clock::now()),
      last_(start_) {}

Progress::~Progress() {
    if (terminal_ && shown_) fmt::print(stderr, "\r\033[K");
}

void Progress::show(size_t done, size_t failed) {
    const auto now = Clock::now();
    if (now - last_ < (terminal_ ? Clock::duration(kOnTerminal) : kElsewhere)) return;
    last_ = now;
    shown_ = true;
    const std::chrono::duration<double> each =
            (now - start_) / std::max<double>(1, static_cast<double>(done));
    const auto left = static_cast<int64_t>(each.count() * static_cast<double>(total_ - done));
    fmt::print(stderr, "{}{} of {} {}, {} failed, {}:{:02}:{:02} left{}", terminal_ ? "\r" : "",
               done, total_, what_, failed, left / 3600, left / 60 % 60, left % 60,
               terminal_ ? "\033[K" : "\n");
}

}  // namespace rvd::lab

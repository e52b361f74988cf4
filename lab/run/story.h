// The story of a run: messages between its actors with their times. They are printed at once and
// kept, since expectations are checked against the kept lines and requests. A violation fails the
// run.
#pragma once

#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "lab/run/story_printer.h"

namespace rvd::lab {

class Story {
  public:
    // If `out` is null nothing is printed.
    Story(FILE* out, const StoryStyle& style, Time start);

    // Prints what the story is about.
    void begin(const std::string& about) { printer_.begin(about); }

    void set_time(Time now) { now_ = now; }

    void add_message(const char* from, const char* to, const std::string& text);

    // A record that the daemon wrote to the kernel log.
    void log_line(int level, const std::string& text);

    // A request of the daemon; printed only if `shown`.
    void request(const char* to, const std::string& text, bool shown = true);

    void violation(const std::string& text);
    template <class First, class... More>
    void violation(const char* format, const First& first, const More&... more) {
        violation(fmt::format(fmt::runtime(format), first, more...));
    }

    // A transfer for the summary. It ends at the daemon's next line or request. The progress of a
    // long one is printed.
    void begin_transfer(const std::string& name, uint64_t total);
    void advance_transfer(uint64_t bytes);

    // Called with each line and request.
    std::function<void(const std::string&text)> on_line, on_request;

    // Restores the lines, requests and violations from before a reboot of the machine.
    void restore(std::vector<std::string> log, std::vector<std::string> requests,
                 std::vector<std::string> violations);

    // Drops everything except the violations.
    void clear();

    const std::vector<std::string>& log() const { return log_; }
    const std::vector<std::string>& requests() const { return requests_; }

    // Lines and requests in order, each with its time: "4.5 s POWER_OFF".
    const std::vector<std::string>& entries() const { return entries_; }

    const std::vector<std::string>& violations() const { return violations_; }

    // The content of the kernel's log ring.
    const std::string& ring() const { return ring_; }

    // A table with one row for all transfers of the same name.
    std::string transfer_summary() const;

    // Trace events, as JSON for a trace viewer.
    std::string trace() const;

    // A sequence diagram in SVG: messages between two actors, and failures.
    std::string picture(const std::string& title) const;

    // The reason of the last panic request.
    std::string panic_reason;

  private:
    using Clock = std::chrono::steady_clock;

    struct Message {
        Time at;
        const char *from, *to;
        std::string text;
    };
    struct Transfers {  // all of one name
        std::string name;
        int times = 0;
        uint64_t bytes = 0;
        Time time = 0;
        std::chrono::duration<double> real{0};
    };

    void end_transfer();
    void add_entry(const std::string& text);
    void add_to_ring(int level, const std::string& text);

    StoryPrinter printer_;
    Time start_, now_;
    std::vector<std::string> log_, requests_, entries_, violations_;
    std::vector<Message> messages_;
    std::vector<Transfers> transfers_;
    // The current transfer; none if real_begin_ is zero.
    size_t current_ = 0;
    uint64_t total_ = 0, moved_ = 0;
    Time begin_ = 0;
    Clock::time_point real_begin_;
    std::string ring_;
};

}  // namespace rvd::lab

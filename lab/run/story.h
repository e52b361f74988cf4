// The story of a run: who said what to whom, at which time. What is told is also kept: the lines
// the daemon logged and the requests it made are what expectations are held against, and a
// violation fails the run.
#pragma once

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "lab/run/story_printer.h"

namespace rvd::lab {

class Story {
  public:
    // With `out` null the story is only kept.
    Story(FILE* out, const Look& look, Time start);

    // What one will see.
    void begin(const std::string& about);

    void set_time(Time now) { now_ = now; }

    void tell(const char* from, const char* to, const std::string& text);

    // One record that the daemon wrote to the kernel log.
    void log_line(int level, const std::string& text);

    // One request of the daemon; `shown` is false where a summary is told instead.
    void request(const char* to, const std::string& text, bool shown = true);

    void violation(const std::string& text);

    // A transfer that is worth figures at the end. It is over when the daemon goes on to something
    // else. Progress is told where it takes long.
    void begin_transfer(const std::string& name, uint64_t total);
    void advance_transfer(uint64_t bytes);

    // Called with each line ("line") and request ("request").
    std::function<void(const char* kind, const std::string& text)> on_fact;

    // What was said, asked and wrong before, where a run goes on after the machine went down.
    void recall(std::vector<std::string> log, std::vector<std::string> requests,
                std::vector<std::string> violations);

    // What was told so far is needed no more.
    void forget();

    const std::vector<std::string>& log() const { return log_; }
    const std::vector<std::string>& requests() const { return requests_; }

    // Both together, each behind its time: "4.5 s POWER_OFF".
    const std::vector<std::string>& facts() const { return facts_; }

    const std::vector<std::string>& violations() const { return violations_; }

    // What the kernel's log ring would hold by now.
    const std::string& ring() const { return ring_; }

    std::vector<std::string> transfer_summary() const;

    // Trace events as trace viewers read them.
    std::string trace() const;

    // A sequence of messages, as SVG: what passed between two, and what the daemon says went wrong.
    std::string picture(const std::string& title) const;

    // The last words of the crashed modem, as the driver was given them.
    std::string crash_sentence;

  private:
    using Clock = std::chrono::steady_clock;

    struct Told {
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
    void keep_fact(const char* kind, const std::string& text);
    void keep_in_ring(int level, const std::string& text);

    FILE* out_;
    StoryPrinter printer_;
    Time start_, now_;
    std::vector<std::string> log_, requests_, facts_, violations_;
    std::vector<Told> told_;
    std::vector<Transfers> transfers_;
    // The one that goes on, or did last; over where it did not really begin.
    size_t current_ = 0;
    uint64_t total_ = 0, moved_ = 0;
    Time begun_ = 0;
    Clock::time_point really_begun_;
    std::string ring_;
};

}  // namespace rvd::lab

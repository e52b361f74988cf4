// Prints a story: columns, chapters, colours, and lines wrapped at the width of a terminal.
#pragma once

#include <stdio.h>

#include <string>

#include "lab/base.h"

namespace rvd::lab {

constexpr double seconds(Time time) {
    return static_cast<double>(time) / kSecond;
}

struct StoryStyle {
    bool colours = false;
    bool brief = false;  // only the chapters and their most important lines
    int width = 0;       // columns of the terminal; 0: lines are not wrapped
};

// The style for a file. `colours` is "auto", "always" or "never".
StoryStyle choose_style(FILE* out, const std::string& colours);

// Whether this is a terminal with escape sequences.
bool is_capable_terminal(int fd);

class StoryPrinter {
  public:
    // Times are printed relative to `start`. If `out` is null nothing is printed.
    StoryPrinter(FILE* out, const StoryStyle& style, Time start)
        : out_(out), style_(style), start_(start) {}

    // Prints what the story is about and a legend of the columns.
    void begin(const std::string& about);

    // Prints one line, after a heading if the line begins a chapter.
    void line(Time now, const char* from, const char* to, const std::string& text);

  private:
    void heading(Time now, const char* title);
    void print(const std::string& columns, const char* colour, const std::string& text);
    const char* colour(const char* code) const { return style_.colours ? code : ""; }

    FILE* out_;
    const StoryStyle style_;
    const Time start_;
    Time last_ = 0;
    bool has_chapter_ = false;
};

}  // namespace rvd::lab

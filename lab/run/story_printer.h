// How a story looks while it is told: columns, chapters, colours, the width of a terminal.
#pragma once

#include <stdio.h>

#include <string>

#include "lab/base.h"

namespace rvd::lab {

struct Look {
    bool colours = false;
    bool brief = false;  // chapters and what matters most in each
    int width = 0;       // lines are wrapped to it; 0: as long as they are
};

// What suits the file: width is a terminal's, and so are colours unless "always" or "never" wanted.
Look look_for(FILE* out, const std::string& colours);

// Whether a line on this terminal can be rewritten and coloured.
bool is_capable_terminal(int fd);

class StoryPrinter {
  public:
    // `start` is the moment from which the story counts.
    StoryPrinter(FILE* out, const Look& look, Time start) : out_(out), look_(look), start_(start) {}

    // What one will see, and what the columns are.
    void begin(const std::string& about);

    // One line, behind the heading of its chapter where it begins one.
    void line(Time now, const char* from, const char* to, const std::string& text);

  private:
    void heading(Time now, const char* title);
    void print(const std::string& columns, const char* colour, const std::string& text);
    const char* colour(const char* code) const { return look_.colours ? code : ""; }

    FILE* out_;
    const Look look_;
    const Time start_;
    Time last_ = 0;
    bool begun_ = false;  // the first chapter has
};

}  // namespace rvd::lab

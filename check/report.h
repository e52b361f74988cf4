// The results: one line each, "OK" or "NO" with what to do, or all of them as JSON at the end.
#pragma once

#include <stdio.h>

#include <string>
#include <vector>

namespace rvd::check {

class Report {
  public:
    explicit Report(bool json) : json_(json) {}

    void ok(const char* what, const std::string& seen) { add(what, true, seen); }
    void no(const char* what, const std::string& to_do) { add(what, false, to_do); }
    void add(const char* what, bool held, const std::string& text);

    bool all_ok() const { return all_ok_; }
    void finish() const;

  private:
    struct Finding {
        std::string what, text;
        bool held;
    };
    const bool json_;
    bool all_ok_ = true;
    std::vector<Finding> findings_;
};

// Asks on standard error whether to do what the text says. An answer that begins with "y" is a yes.
bool agreed(const char* text, FILE* answer);

// Formats a text of at most 511 bytes; a longer one is cut.
std::string text(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Replaces control characters and non-ASCII bytes by "?".
std::string printable(std::string text);

std::string joined(const std::vector<std::string>& texts);

}  // namespace rvd::check

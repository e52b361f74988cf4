// What was found: a line each, "OK" or "NO" with what to do; or all of it as JSON at the end.
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

// Asks on standard error whether to do what the text says. Only an answer that begins with "y" is a
// yes.
bool agreed(const char* text, FILE* answer);

// Formats a text, cut at 512 bytes.
std::string text(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Control characters and bytes beyond ASCII, as in a broken table's names, become "?".
std::string printable(std::string text);

std::string joined(const std::vector<std::string>& texts);

}  // namespace rvd::check

#include "check/report.h"

#include <stdarg.h>
#include <stdio.h>

namespace rvd::check {

namespace {

std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + '"';
}

}  // namespace

void Report::add(const char* what, bool held, const std::string& text) {
    all_ok_ = all_ok_ && held;
    findings_.push_back({what, printable(text), held});
    if (json_) return;
    printf("%s  %s: %s\n", held ? "OK" : "NO", what, findings_.back().text.c_str());
    fflush(stdout);
}

void Report::finish() const {
    if (!json_) return;
    printf("{\"ok\": %s, \"checks\": [", all_ok_ ? "true" : "false");
    const char* between = "";
    for (const Finding& finding : findings_) {
        printf("%s\n {\"what\": %s, \"ok\": %s, \"text\": %s}", between,
               quoted(finding.what).c_str(), finding.held ? "true" : "false",
               quoted(finding.text).c_str());
        between = ",";
    }
    printf("\n]}\n");
}

bool agreed(const char* text, FILE* answer) {
    fprintf(stderr, "%sGo on? [y/N] ", text);
    return getc(answer) == 'y';
}

std::string text(const char* format, ...) {
    char room[512];
    va_list values;
    va_start(values, format);
    vsnprintf(room, sizeof(room), format, values);
    va_end(values);
    return room;
}

std::string printable(std::string text) {
    for (char& c : text) {
        if (c < ' ' || c > '~') c = '?';
    }
    return text;
}

std::string joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& one : texts)
        all += (all.empty() ? "" : "; ") + one;
    return all;
}

}  // namespace rvd::check

#include "lab/scenario/reader.h"

#include <fmt/format.h>
#include <regex.h>
#include <string.h>

#include <algorithm>

namespace rvd::lab {

namespace {

constexpr size_t kFewWords = 6;       // listed in a message
constexpr size_t kLongestText = 512;  // that may be matched with a pattern
constexpr double kBeyondNumbers = 9223372036854775808.0;

const std::map<std::string, int64_t> kSpans = {
        {"ms", kMillisecond}, {"s", kSecond}, {"min", 60 * kSecond}, {"h", 3600 * kSecond}};
const std::map<std::string, int64_t> kSizes = {
        {"KiB", 1 << 10}, {"MiB", 1 << 20}, {"GiB", 1 << 30}};

// The value of "1.5 s" or "64 KiB"; negative for any other text.
int64_t measured(const std::string& text, const std::map<std::string, int64_t>& units) {
    char* end = nullptr;
    const double value = strtod(text.c_str(), &end);
    const auto unit = units.find(end + strspn(end, " "));
    if (end == text.c_str() || unit == units.end()) return -1;
    const double amount = value * static_cast<double>(unit->second);
    return amount >= 0 && amount < kBeyondNumbers ? static_cast<int64_t>(amount) : -1;
}

bool has_pattern(const std::string& text, const std::string& pattern) {
    if (text.size() > kLongestText || text.find('\0') != text.npos) return false;
    regex_t compiled;
    if (regcomp(&compiled, ("^(" + pattern + ")$").c_str(), REG_EXTENDED | REG_NOSUB) != 0)
        throw std::logic_error("bad pattern: " + pattern);
    const bool found = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&compiled);
    return found;
}

bool is_word(const std::string& text, const Constraint& constraint) {
    const std::string first = constraint.patterned ? text.substr(0, text.find(' ')) : text;
    return std::any_of(constraint.words.begin(), constraint.words.end(),
                       [&](const std::string& word) {
                           return constraint.patterned ? matches(first, word) : first == word;
                       });
}

std::string unknown_word(const Constraint& constraint, const std::string& word) {
    const std::string text = fmt::format("unknown {} \"{}\"", constraint.what, word);
    if (constraint.words.size() > kFewWords) return text + did_you_mean(word, constraint.words);
    return text + fmt::format("; expected \"{}\"", fmt::join(constraint.words, "\", \""));
}

}  // namespace

Constraint between(int64_t least, int64_t most) {
    return {{}, {}, {}, false, false, least, most};
}

Constraint named(const Constraint& names, Constraint constraint) {
    constraint.names = &names;
    return constraint;
}

void Reader::require(std::initializer_list<const char*> names, size_t most) const {
    if (schema_ != nullptr) return;
    const auto given =
            static_cast<size_t>(std::count_if(names.begin(), names.end(), [&](const char* name) {
                return entries_.count(name) > 0;
            }));
    if (given == 0 || given > most)
        table_->reject(fmt::format("{} {}{}\"{}\"", table_->path,
                                   given == 0 ? "needs " : "takes only ",
                                   names.size() > 1 ? "one of " : "", fmt::join(names, "\", \"")));
}

void Reader::finish() const {
    for (const auto& [name, value] : entries_) {
        if (std::find(known_.begin(), known_.end(), name) == known_.end())
            value.reject(fmt::format("unknown key \"{}\"{}{}", name,
                                     table_->path.empty() ? "" : " in " + table_->path,
                                     did_you_mean(name, known_)));
    }
}

void Reader::check(const Value& value, const std::string& text, const Constraint& constraint) {
    if (!constraint.words.empty() && !is_word(text, constraint))
        value.reject(unknown_word(constraint, text));
    if (!constraint.pattern.empty() && !has_pattern(text, constraint.pattern))
        value.reject(fmt::format("\"{}\" is not {}", text, constraint.what));
}

void Reader::read(const Value& value, std::string& out, const Constraint& constraint) {
    if (!value.node->is_string()) value.reject("expected a string");
    out = **value.node->as_string();
    check(value, out, constraint);
}

void Reader::read(const Value& value, int64_t& out, const Constraint& constraint) {
    const auto* number = value.node->as_integer();
    const auto* text = value.node->as_string();
    const bool plain = number != nullptr && !constraint.span;
    out = plain             ? **number
          : text != nullptr ? measured(**text, constraint.span ? kSpans : kSizes)
                            : -1;
    if (!plain && out < 0)
        value.reject(constraint.span ? R"(expected a time as "250 ms", "1.5 s", "2 min" or "1 h")"
                                     : R"(expected a number as 4096 or "64 KiB")");
    if (out < constraint.least || out > constraint.most)
        value.reject(
                fmt::format("expected a number from {} to {}", constraint.least, constraint.most));
}

void Reader::read(const Value& value, bool& out, const Constraint&) {
    if (!value.node->is_boolean()) value.reject("expected true or false");
    out = **value.node->as_boolean();
}

Schema Reader::schema_of(std::string&, const Constraint& constraint) {
    Schema schema = {{"type", "string"}};
    if (!constraint.pattern.empty()) schema["pattern"] = "^(" + constraint.pattern + ")$";
    if (!constraint.words.empty() && !constraint.patterned) schema["enum"] = constraint.words;
    return schema;
}

Schema Reader::schema_of(int64_t&, const Constraint& constraint) {
    if (constraint.span) return {{"type", "string"}, {"pattern", "^[0-9.]+ *(ms|s|min|h)$"}};
    return {{"type", {"integer", "string"}},
            {"minimum", constraint.least},
            {"maximum", constraint.most},
            {"pattern", "^[0-9.]+ *(KiB|MiB|GiB)$"}};
}

}  // namespace rvd::lab

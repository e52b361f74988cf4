#include "lab/scenario/reader.h"

#include <fmt/format.h>
#include <regex.h>

#include <algorithm>

namespace rvd::lab {

namespace {

constexpr size_t kFewWords = 6;       // listed in a message
constexpr size_t kLongestText = 512;  // that is matched with a pattern
constexpr double kBeyondNumbers = 9223372036854775808.0;

struct Unit {
    const char* name;
    int64_t factor;
    bool span;
};
constexpr Unit kUnits[] = {{"ms", kMillisecond, true},  {"s", kSecond, true},
                           {"min", 60 * kSecond, true}, {"h", 3600 * kSecond, true},
                           {"KiB", 1 << 10, false},     {"MiB", 1 << 20, false},
                           {"GiB", 1 << 30, false}};

// The value of "1.5 s" or "64 KiB"; negative for anything else.
int64_t measured(const std::string& text, bool span) {
    char* end = nullptr;
    const double value = strtod(text.c_str(), &end);
    const size_t used = static_cast<size_t>(end - text.c_str());
    if (used == 0) return -1;
    const std::string name = text.substr(std::min(text.find_first_not_of(' ', used), text.size()));
    for (const Unit& unit : kUnits) {
        const double amount = value * static_cast<double>(unit.factor);
        if (unit.name == name && unit.span == span && amount >= 0 && amount < kBeyondNumbers)
            return static_cast<int64_t>(amount);
    }
    return -1;
}

bool has_pattern(const std::string& text, const std::string& pattern) {
    if (text.size() > kLongestText || text.find('\0') != text.npos) return false;
    regex_t compiled;
    if (regcomp(&compiled, ("^(" + pattern + ")$").c_str(), REG_EXTENDED | REG_NOSUB) != 0)
        throw std::logic_error("no pattern: " + pattern);
    const bool found = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&compiled);
    return found;
}

bool is_word(const std::string& text, const Form& form) {
    const std::string first = form.patterned ? text.substr(0, text.find(' ')) : text;
    return std::any_of(form.words.begin(), form.words.end(), [&](const std::string& word) {
        return form.patterned ? matches(first, word) : first == word;
    });
}

std::string unknown_word(const Form& form, const std::string& word) {
    const std::string text = fmt::format("unknown {} \"{}\"", form.what, word);
    if (form.words.size() > kFewWords) return text + did_you_mean(word, form.words);
    return text + fmt::format("; expected \"{}\"", fmt::join(form.words, "\", \""));
}

}  // namespace

const Form kAny = {};
const Form kSpan = {{}, {}, {}, false, true};

Form between(int64_t least, int64_t most) {
    return {{}, {}, {}, false, false, least, most};
}

Reader::Reader(const Value& table, std::string place) : table_(&table), place_(std::move(place)) {
    table_in(table);
}

Reader& Reader::table(const char* name, const char* help,
                      const std::function<void(Reader&)>& body) {
    static const Value none = {Value::Table(), ""};
    const Value* node = find(name, help, "table", kAny);
    Reader inner = keys_ != nullptr ? Reader(*keys_, below(name))
                                    : Reader(node != nullptr ? *node : none, below(name));
    body(inner);
    inner.finish();
    return *this;
}

const Value* Reader::find(const char* name, const char* help, const std::string& type,
                          const Form& form) {
    known_.emplace_back(name);
    if (keys_ != nullptr) keys_->push_back({below(name), help, type, form});
    const auto found = all().find(name);
    return last_ = found == all().end() ? nullptr : &found->second;
}

std::string Reader::below(const std::string& name) const {
    return place_.empty() ? name : place_ + "." + name;
}

void Reader::needs(std::initializer_list<const char*> names, size_t most) const {
    const auto given = static_cast<size_t>(std::count_if(
            names.begin(), names.end(), [&](const char* name) { return all().count(name) > 0; }));
    if (keys_ == nullptr && (given == 0 || given > most))
        table_->refuse(fmt::format("{} {}{}\"{}\"", place_, given == 0 ? "needs " : "takes only ",
                                   names.size() > 1 ? "one of " : "", fmt::join(names, "\", \"")));
}

const Value::Table& Reader::all() const {
    static const Value::Table none;
    return table_ == nullptr ? none : table_in(*table_);
}

void Reader::finish() const {
    for (const auto& [name, node] : all()) {
        if (std::find(known_.begin(), known_.end(), name) == known_.end())
            node.refuse(fmt::format("unknown key \"{}\"{}{}", name,
                                    place_.empty() ? "" : " in " + place_,
                                    did_you_mean(name, known_)));
    }
}

const Value::Table& Reader::table_in(const Value& node) {
    if (node.as<Value::Table>() == nullptr) node.refuse("expected a table");
    return *node.as<Value::Table>();
}

const Value::List& Reader::list_in(const Value& node) {
    if (node.as<Value::List>() == nullptr) node.refuse("expected a list");
    return *node.as<Value::List>();
}

void Reader::check(const Value& node, const std::string& text, const Form& form) {
    if (!form.words.empty() && !is_word(text, form)) node.refuse(unknown_word(form, text));
    if (!form.pattern.empty() && !has_pattern(text, form.pattern))
        node.refuse(fmt::format("\"{}\" is not {}", text, form.what));
}

void Reader::take(const Value& node, std::string& out, const Form& form) {
    if (node.as<std::string>() == nullptr) node.refuse("expected a text");
    out = *node.as<std::string>();
    check(node, out, form);
}

void Reader::take(const Value& node, int64_t& out, const Form& form) {
    const auto* number = node.as<int64_t>();
    const auto* text = node.as<std::string>();
    out = text != nullptr ? measured(*text, form.span) : number != nullptr ? *number : -1;
    const bool measure = form.span || number == nullptr;
    if (measure && (text == nullptr || out < 0))
        node.refuse(form.span ? R"(expected a time as "250 ms", "1.5 s", "2 min" or "1 h")"
                              : R"(expected a number as 4096 or "64 KiB")");
    if (out < form.least || out > form.most)
        node.refuse(fmt::format("expected a number from {} to {}", form.least, form.most));
}

void Reader::take(const Value& node, bool& out, const Form&) {
    if (node.as<bool>() == nullptr) node.refuse("expected true or false");
    out = *node.as<bool>();
}

}  // namespace rvd::lab

#include "lab/scenario/document.h"

#include <fmt/format.h>

#include <algorithm>

namespace rvd::lab {

namespace {

// toml++ reports a line break inside a string as a control character.
bool is_unterminated(const std::string& text, const toml::parse_error& error) {
    const std::string_view why = error.description();
    if (why.find("parsing string") == why.npos) return false;
    size_t begin = 0;
    for (unsigned line = 1; line < error.source().begin.line && begin < text.size(); line++)
        begin = std::min(text.find('\n', begin), text.size() - 1) + 1;
    const size_t length = std::min(text.find('\n', begin), text.size()) - begin;
    return error.source().begin.column > length || why.find("end-of-file") != why.npos;
}

// toml++ takes some non-ASCII letters for blanks.
void reject_non_ascii(const std::string& text, const std::string& name) {
    const auto beyond = std::find_if(text.begin(), text.end(), [](char c) { return c & 0x80; });
    if (beyond == text.end()) return;
    throw Error(fmt::format("{}:{}: a character that is not ASCII; in a string, write it as \\u...",
                            name, 1 + std::count(text.begin(), beyond, '\n')));
}

}  // namespace

std::map<std::string, Value> Value::entries() const {
    if (!node->is_table()) reject("expected a table");
    std::map<std::string, Value> all;
    for (const toml::node* table : {base, node}) {
        if (table == nullptr) continue;
        for (const auto& [key, value] : *table->as_table()) {
            const std::string name(key.str());
            Value& entry = all[name];
            const bool merges = entry.node != nullptr && entry.node->is_table();
            entry = {&value, merges && value.is_table() ? entry.node : nullptr,
                     path.empty() ? name : path + "." + name};
        }
    }
    return all;
}

std::vector<Value> Value::items() const {
    if (!node->is_array()) reject("expected an array");
    std::vector<Value> all;
    for (const toml::node& item : *node->as_array())
        all.push_back({&item, nullptr, path + "[]"});
    return all;
}

void Value::reject(const std::string& why) const {
    const toml::source_region& source = node->source();
    throw Error(fmt::format("{}:{}: {}", *source.path, source.begin.line, why));
}

toml::table parse_document(const std::string& text, const std::string& name) try {
    reject_non_ascii(text, name);
    return toml::parse(text, name);
} catch (const toml::parse_error& error) {
    throw Error(fmt::format("{}:{}: {}", name, error.source().begin.line,
                            is_unterminated(text, error)
                                    ? "the string that begins here is not terminated"
                                    : error.description()));
}

}  // namespace rvd::lab

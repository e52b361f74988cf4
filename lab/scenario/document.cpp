#include "lab/scenario/document.h"

#include <algorithm>

// The library's assertions would abort before it reports where a file is no TOML.
#define TOML_ASSERT(expr) static_cast<void>(0)
#include <toml++/toml.h>

namespace rvd::lab {

namespace {

std::string place_of(const std::string& name, const toml::source_region& source) {
    return name + ":" + std::to_string(source.begin.line);
}

Value converted(const toml::node& from, const std::string& name) {
    Value node{{}, place_of(name, from.source())};
    if (const auto* table = from.as_table()) {
        auto& entries = node.value.emplace<Value::Table>();
        for (const auto& [key, value] : *table)
            entries.emplace(key.str(), converted(value, name));
    } else if (const auto* array = from.as_array()) {
        auto& items = node.value.emplace<Value::List>();
        for (const toml::node& item : *array)
            items.push_back(converted(item, name));
    } else if (from.is_string()) {
        node.value = *from.value<std::string>();
    } else if (from.is_integer()) {
        node.value = *from.value<int64_t>();
    } else if (from.is_boolean()) {
        node.value = *from.value<bool>();
    }
    return node;
}

// The library reports the end of a line within a text as a control character.
bool is_unterminated(const std::string& text, const toml::parse_error& error) {
    const std::string_view why = error.description();
    if (why.find("parsing string") == why.npos) return false;
    size_t begin = 0;
    for (unsigned line = 1; line < error.source().begin.line && begin < text.size(); line++)
        begin = std::min(text.find('\n', begin), text.size() - 1) + 1;
    const size_t length = std::min(text.find('\n', begin), text.size()) - begin;
    return error.source().begin.column > length || why.find("end-of-file") != why.npos;
}

// The library mistakes some letters beyond ASCII for blanks; in a text, \u writes them.
void refuse_beyond_ascii(const std::string& text, const std::string& name) {
    const auto beyond = std::find_if(text.begin(), text.end(), [](char c) { return c & 0x80; });
    if (beyond == text.end()) return;
    throw Unable(name + ":" + std::to_string(1 + std::count(text.begin(), beyond, '\n')) +
                 ": a character that is not ASCII; in a text, \\u spells it");
}

}  // namespace

Value parse_document(const std::string& text, const std::string& name) try {
    refuse_beyond_ascii(text, name);
    Value document = converted(toml::parse(text, name), name);
    document.place = name + ":1";
    return document;
} catch (const toml::parse_error& error) {
    throw Unable(place_of(name, error.source()) + ": " +
                 (is_unterminated(text, error) ? "the text that begins here is not terminated"
                                               : std::string(error.description())));
}

Value merged(Value base, const Value& over) {
    auto* entries = std::get_if<Value::Table>(&base.value);
    const auto* more = over.as<Value::Table>();
    if (entries == nullptr || more == nullptr) return over;
    for (const auto& [key, node] : *more) {
        const auto [at, added] = entries->emplace(key, node);
        if (!added) at->second = merged(std::move(at->second), node);
    }
    base.place = over.place;
    return base;
}

}  // namespace rvd::lab

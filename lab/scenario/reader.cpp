#include "lab/scenario/reader.h"

#include <fmt/format.h>

#include <algorithm>

namespace rvd::lab {

namespace {

struct Unit {
    const char* name;
    int64_t factor;
};
constexpr Unit kTimes[] = {
        {"ms", kMillisecond}, {"s", kSecond}, {"min", 60 * kSecond}, {"h", 3600 * kSecond}};
constexpr Unit kSizes[] = {{"KiB", 1 << 10}, {"MiB", 1 << 20}, {"GiB", 1 << 30}};
constexpr double kBeyondNumbers = 9223372036854775808.0;

// "1.5 s" with the units given.
template <size_t N>
int64_t measured(const toml::node& node, const Unit (&units)[N], const char* example) {
    const std::string text = node.value_or(std::string());
    size_t used = 0;
    double value = -1;
    try {
        value = std::stod(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    while (used < text.size() && text[used] == ' ')
        used++;
    for (const Unit& unit : units) {
        const double amount = value * static_cast<double>(unit.factor);
        if (used > 0 && value >= 0 && amount < kBeyondNumbers && text.substr(used) == unit.name)
            return static_cast<int64_t>(amount);
    }
    refuse_at(node, fmt::format("expected a value like {}", example));
}

}  // namespace

void refuse_at(const toml::node& node, const std::string& why) {
    const toml::source_region& source = node.source();
    throw Unable(fmt::format("{}:{}: {}", source.path ? *source.path : "scenario",
                             source.begin.line, why));
}

std::string unknown_word(const std::string& what, const std::string& word,
                         const std::vector<std::string>& known) {
    constexpr size_t kFew = 6;
    std::string text = fmt::format("unknown {} \"{}\"", what, word);
    if (known.size() > kFew) return text + did_you_mean(word, known);
    return text + fmt::format("; expected \"{}\"", fmt::join(known, "\", \""));
}

const toml::table& Reader::as_table(const toml::node& node) {
    if (!node.is_table()) refuse_at(node, "expected a table");
    return *node.as_table();
}

const toml::array& Reader::as_array(const toml::node& node) {
    if (!node.is_array()) refuse_at(node, "expected a list");
    return *node.as_array();
}

Time Reader::as_time(const toml::node& node) {
    return measured(node, kTimes, "\"250 ms\", \"1.5 s\", \"2 min\" or \"1 h\"");
}

void Reader::convert(const toml::node& node, std::string& out, Bounds) {
    if (!node.is_string()) refuse_at(node, "expected a text");
    out = *node.value<std::string>();
}

void Reader::convert(const toml::node& node, int64_t& out, Bounds bounds) {
    out = node.is_integer() ? *node.value<int64_t>() : measured(node, kSizes, "4096 or \"64 KiB\"");
    if (out < bounds.least || out > bounds.most)
        refuse_at(node, fmt::format("expected a number from {} to {}", bounds.least, bounds.most));
}

void Reader::convert(const toml::node& node, int& out, Bounds bounds) {
    int64_t value = 0;
    convert(node, value, {bounds.least, std::min<int64_t>(bounds.most, INT32_MAX)});
    out = static_cast<int>(value);
}

void Reader::convert(const toml::node& node, bool& out, Bounds) {
    if (!node.is_boolean()) refuse_at(node, "expected true or false");
    out = *node.value<bool>();
}

std::string Reader::below(const std::string& key) const {
    return path_.empty() ? key : path_ + "." + key;
}

const toml::node* Reader::find(const char* key, const char* help) {
    known_.push_back(key);
    if (schema_ != nullptr) described(key)["description"] = help;
    last_ = nullptr;
    for (auto layer = layers_.rbegin(); layer != layers_.rend() && last_ == nullptr; ++layer)
        last_ = (*layer)->get(key);
    return last_;
}

bool Reader::has(const char* key) const {
    return std::any_of(layers_.begin(), layers_.end(),
                       [&](const toml::table* layer) { return layer->contains(key); });
}

std::vector<const toml::table*> Reader::tables_of(const char* key) {
    std::vector<const toml::table*> tables;
    for (const toml::table* layer : layers_) {
        if (const toml::node* node = layer->get(key)) tables.push_back(&as_table(*node));
    }
    return tables;
}

Reader& Reader::table(const char* key, const char* help, const Body& body) {
    find(key, help);
    Reader inner(tables_of(key), below(key), schema_ ? &described(key) : nullptr);
    body(inner);
    inner.finish();
    return *this;
}

Reader& Reader::named(const char* key, const char* help,
                      const std::function<void(const std::string&, Reader&)>& body) {
    find(key, help);
    std::vector<std::string> names;
    for (const toml::table* table : tables_of(key)) {
        for (const auto& entry : *table)
            names.emplace_back(entry.first.str());
    }
    if (schema_ != nullptr) names = {"NAME"};
    Reader outer(tables_of(key), below(key));
    for (const std::string& name : names) {
        Reader inner(outer.tables_of(name.c_str()), below(key) + "." + name,
                     schema_ ? &described(key)["additionalProperties"] : nullptr);
        body(name, inner);
        inner.finish();
    }
    return *this;
}

Schema Reader::shape(int64_t, Bounds bounds) {
    return {{"type", {"integer", "string"}},
            {"minimum", bounds.least},
            {"maximum", bounds.most},
            {"pattern", "^[0-9.]+ *(KiB|MiB|GiB)$"}};
}

Schema Reader::time_shape() {
    return {{"type", "string"}, {"pattern", "^[0-9.]+ *(ms|s|min|h)$"}};
}

void Reader::finish() const {
    if (schema_ != nullptr) schema_->update({{"type", "object"}, {"additionalProperties", false}});
    for (const toml::table* layer : layers_) {
        for (const auto& [name, node] : *layer) {
            const std::string key(name.str());
            if (std::find(known_.begin(), known_.end(), key) != known_.end()) continue;
            const std::string place = path_.empty() ? "" : " in " + path_;
            refuse_at(node,
                      fmt::format("unknown key \"{}\"{}{}", key, place, did_you_mean(key, known_)));
        }
    }
}

void Reader::refuse(const std::string& why) const {
    if (layers_.empty()) throw Unable(why);
    refuse_at(*layers_.back(), why);
}

}  // namespace rvd::lab

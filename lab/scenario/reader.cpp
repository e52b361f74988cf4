#include "lab/scenario/reader.h"

#include <algorithm>

namespace rvd::lab {

namespace {

[[noreturn]] void refuse_at(const toml::node& node, const std::string& why) {
    const toml::source_region& source = node.source();
    throw Unable((source.path ? *source.path : "scenario") + ":" +
                 std::to_string(source.begin.line) + ": " + why);
}

struct Unit {
    const char* name;
    int64_t factor;
};
constexpr Unit kTimes[] = {
        {"ms", kMillisecond}, {"s", kSecond}, {"min", 60 * kSecond}, {"h", 3600 * kSecond}};
constexpr double kBeyondNumbers = 9223372036854775808.0;
constexpr Unit kSizes[] = {{"KiB", 1 << 10}, {"MiB", 1 << 20}, {"GiB", 1 << 30}};

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
    refuse_at(node, std::string("a value like ") + example + " is wanted here");
}

int64_t as_number(const toml::node& node) {
    if (node.is_integer()) return *node.value<int64_t>();
    return measured(node, kSizes, "4096 or \"64 KiB\"");
}

std::string as_text(const toml::node& node) {
    if (!node.is_string()) refuse_at(node, "a text is wanted here");
    return *node.value<std::string>();
}

const toml::table& as_table(const toml::node& node) {
    if (!node.is_table()) refuse_at(node, "a table is wanted here");
    return *node.as_table();
}

const toml::array& as_array(const toml::node& node) {
    if (!node.is_array()) refuse_at(node, "a list is wanted here");
    return *node.as_array();
}

}  // namespace

std::string Reader::below(const std::string& key) const {
    return path_.empty() ? key : path_ + "." + key;
}

const toml::node* Reader::find(const char* key, const char* help) {
    known_.push_back(key);
    if (manual_ != nullptr) *manual_ += format("%-28s %s\n", below(key).c_str(), help);
    for (auto layer = layers_.rbegin(); layer != layers_.rend(); ++layer) {
        if (const toml::node* node = (*layer)->get(key)) return node;
    }
    return nullptr;
}

Reader& Reader::text(const char* key, std::string& out, const char* help) {
    if (const toml::node* node = find(key, help)) out = as_text(*node);
    return *this;
}

Reader& Reader::number(const char* key, int64_t& out, const char* help) {
    if (const toml::node* node = find(key, help)) out = as_number(*node);
    return *this;
}

Reader& Reader::number(const char* key, std::optional<int64_t>& out, const char* help) {
    if (const toml::node* node = find(key, help)) out = as_number(*node);
    return *this;
}

Reader& Reader::number(const char* key, int& out, const char* help) {
    if (const toml::node* node = find(key, help)) out = static_cast<int>(as_number(*node));
    return *this;
}

Reader& Reader::flag(const char* key, bool& out, const char* help) {
    if (const toml::node* node = find(key, help)) {
        if (!node->is_boolean()) refuse_at(*node, "true or false is wanted here");
        out = *node->value<bool>();
    }
    return *this;
}

Reader& Reader::time(const char* key, Time& out, const char* help) {
    if (const toml::node* node = find(key, help)) out = measured(*node, kTimes, "\"250 ms\"");
    return *this;
}

Reader& Reader::time(const char* key, std::optional<Time>& out, const char* help) {
    if (const toml::node* node = find(key, help)) out = measured(*node, kTimes, "\"250 ms\"");
    return *this;
}

Reader& Reader::texts(const char* key, std::vector<std::string>& out, const char* help) {
    if (const toml::node* node = find(key, help)) {
        out.clear();
        for (const toml::node& item : as_array(*node))
            out.push_back(as_text(item));
    }
    return *this;
}

Reader& Reader::numbers(const char* key, std::vector<int64_t>& out, const char* help) {
    if (const toml::node* node = find(key, help)) {
        out.clear();
        for (const toml::node& item : as_array(*node))
            out.push_back(as_number(item));
    }
    return *this;
}

std::vector<const toml::table*> Reader::tables_of(const char* key) {
    std::vector<const toml::table*> tables;
    for (const toml::table* layer : layers_) {
        if (const toml::node* node = layer->get(key)) tables.push_back(&as_table(*node));
    }
    return tables;
}

Reader& Reader::map(const char* key, std::map<std::string, std::string>& out, const char* help) {
    find(key, help);
    for (const toml::table* table : tables_of(key)) {
        for (const auto& [name, node] : *table)
            out[std::string(name.str())] = as_text(node);
    }
    return *this;
}

Reader& Reader::map(const char* key, std::map<std::string, int64_t>& out, const char* help) {
    find(key, help);
    for (const toml::table* table : tables_of(key)) {
        for (const auto& [name, node] : *table)
            out[std::string(name.str())] = as_number(node);
    }
    return *this;
}

Reader& Reader::table(const char* key, const char* help, const Body& body) {
    find(key, help);
    Reader inner(tables_of(key), below(key), manual_);
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
    if (manual_ != nullptr) names = {"NAME"};
    Reader outer(tables_of(key), below(key));
    for (const std::string& name : names) {
        Reader inner(outer.tables_of(name.c_str()), below(key) + "." + name, manual_);
        body(name, inner);
        inner.finish();
    }
    return *this;
}

const toml::array* Reader::items_of(const char* key, const char* help) {
    const toml::node* node = find(key, help);
    return node != nullptr ? &as_array(*node) : nullptr;
}

Reader Reader::item_reader(const toml::array* items, size_t index, const char* key) const {
    std::vector<const toml::table*> layers;
    if (items != nullptr) layers.push_back(&as_table(*items->get(index)));
    return Reader(layers, below(key) + "[]", manual_);
}

void Reader::finish() const {
    for (const toml::table* layer : layers_) {
        for (const auto& [name, node] : *layer) {
            const std::string key(name.str());
            if (std::find(known_.begin(), known_.end(), key) != known_.end()) continue;
            std::string why = "unknown key \"" + key + "\"";
            if (!path_.empty()) why += " in " + path_;
            refuse_at(node, why + did_you_mean(key, known_));
        }
    }
}

void Reader::refuse(const std::string& why) const {
    if (layers_.empty()) throw Unable(why);
    refuse_at(*layers_.back(), why);
}

}  // namespace rvd::lab

// Reads a scenario's tables key by key. Each call names a key, its place and its meaning, so that
// what can be read, what is refused and what the manual says are one list.
#pragma once

// A scenario that is no TOML is refused with its line; the library's own assertions come before its
// message, and would end the process instead.
#define TOML_ASSERT(expr) static_cast<void>(0)
#include <toml++/toml.h>

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "lab/base.h"

namespace rvd::lab {

// Throws Unable with the file and line of a node.
[[noreturn]] void refuse_at(const toml::node& node, const std::string& why);

// "x" is not one of the known words; with the words, or the nearest where they are many.
std::string unknown_word(const std::string& what, const std::string& word,
                         const std::vector<std::string>& known);

// Bounds of a number, both included.
struct Bounds {
    int64_t least = 0, most = INT64_MAX;
};
constexpr Bounds kWord{0, UINT32_MAX};

using Schema = nlohmann::ordered_json;  // a JSON schema

class Reader {
  public:
    // Later layers are laid over earlier ones, key by key. With `schema` given there are no layers,
    // and every key is described there instead of read.
    Reader(std::vector<const toml::table*> layers, std::string path, Schema* schema = nullptr)
        : layers_(std::move(layers)), path_(std::move(path)), schema_(schema) {}

    // Texts, numbers with a unit or without, true and false, and optionals, lists and tables of
    // them. A table's keys from all layers count; of any other value, the last layer's does.
    template <class T>
    Reader& key(const char* key, T& out, const char* help, Bounds bounds = {}) {
        if (find(key, help) != nullptr) convert(*last_, out, bounds);
        if (schema_ != nullptr) described(key).update(shape(out, bounds));
        return *this;
    }
    template <class T>
    Reader& key(const char* key, std::map<std::string, T>& out, const char* help,
                Bounds bounds = {}) {
        find(key, help);
        if (schema_ != nullptr) described(key).update(map_of(shape(T(), bounds)));
        for (const toml::table* table : tables_of(key)) {
            for (const auto& [name, node] : *table)
                convert(node, out[std::string(name.str())], bounds);
        }
        return *this;
    }
    template <class T>
    Reader& time(const char* key, T& out, const char* help) {
        if (find(key, help) != nullptr) out = as_time(*last_);
        if (schema_ != nullptr) described(key).update(time_shape());
        return *this;
    }

    // What must be so of the key that was read last, where it was given.
    Reader& must(bool holds, const std::string& why) {
        if (last_ != nullptr && !holds) refuse_at(*last_, why);
        return *this;
    }

    using Body = std::function<void(Reader&)>;
    Reader& table(const char* key, const char* help, const Body& body);

    // A table whose keys are free names, each a table of its own.
    Reader& named(const char* key, const char* help,
                  const std::function<void(const std::string&, Reader&)>& body);

    // An array of tables: the last layer that has the key gives all of them.
    template <class T>
    Reader& list(const char* key, std::vector<T>& out, const char* help,
                 const std::function<void(Reader&, T&)>& body) {
        const toml::array* items = find(key, help) != nullptr ? &as_array(*last_) : nullptr;
        if (items != nullptr) out.clear();
        const size_t count = schema_ != nullptr ? 1 : items != nullptr ? items->size() : 0;
        if (schema_ != nullptr) described(key)["type"] = "array";
        for (size_t i = 0; i < count; i++) {
            T item{};
            std::vector<const toml::table*> layers;
            if (items != nullptr) layers.push_back(&as_table(*items->get(i)));
            Reader reader(layers, below(key) + "[]", schema_ ? &described(key)["items"] : nullptr);
            body(reader, item);
            reader.finish();
            out.push_back(std::move(item));
        }
        return *this;
    }

    // A key that another reader takes care of.
    Reader& ignore(const char* key) {
        known_.push_back(key);
        return *this;
    }

    bool has(const char* key) const;
    bool describes() const { return schema_ != nullptr; }

    // Refuses every key that nobody asked for.
    void finish() const;

    // Throws Unable, naming the place of the innermost table.
    [[noreturn]] void refuse(const std::string& why) const;

  private:
    const toml::node* find(const char* key, const char* help);
    std::vector<const toml::table*> tables_of(const char* key);
    std::string below(const std::string& key) const;

    // What a schema says of a key, and of the values that each kind of key takes.
    Schema& described(const char* key) { return (*schema_)["properties"][key]; }
    static Schema shape(const std::string&, Bounds) { return {{"type", "string"}}; }
    static Schema shape(bool, Bounds) { return {{"type", "boolean"}}; }
    static Schema shape(int, Bounds bounds) { return shape(int64_t{0}, bounds); }
    static Schema shape(int64_t, Bounds bounds);
    template <class T>
    static Schema shape(const std::optional<T>&, Bounds bounds) {
        return shape(T(), bounds);
    }
    template <class T>
    static Schema shape(const std::vector<T>&, Bounds bounds) {
        return {{"type", "array"}, {"items", shape(T(), bounds)}};
    }
    static Schema map_of(const Schema& values) {
        return {{"type", "object"}, {"additionalProperties", values}};
    }
    static Schema time_shape();

    static const toml::table& as_table(const toml::node& node);
    static const toml::array& as_array(const toml::node& node);
    static Time as_time(const toml::node& node);
    static void convert(const toml::node& node, std::string& out, Bounds bounds);
    static void convert(const toml::node& node, int64_t& out, Bounds bounds);
    static void convert(const toml::node& node, int& out, Bounds bounds);
    static void convert(const toml::node& node, bool& out, Bounds bounds);
    template <class T>
    static void convert(const toml::node& node, std::optional<T>& out, Bounds bounds) {
        convert(node, out.emplace(), bounds);
    }
    template <class T>
    static void convert(const toml::node& node, std::vector<T>& out, Bounds bounds) {
        out.clear();
        for (const toml::node& item : as_array(node))
            convert(item, out.emplace_back(), bounds);
    }

    std::vector<const toml::table*> layers_;
    std::string path_;
    Schema* schema_;
    std::vector<std::string> known_;
    const toml::node* last_ = nullptr;
};

}  // namespace rvd::lab

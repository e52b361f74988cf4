// Reads the tables of a scenario. Each call of key() declares a key, its member, meaning and
// constraint. The same calls read and check a file and generate the schema that `rvd-lab keys`
// prints.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>

#include "lab/scenario/document.h"

namespace rvd::lab {

using Schema = nlohmann::ordered_json;

// Limits a value beyond its type.
struct Constraint {
    std::string what;                     // for the message: "a property's name", "modem"
    std::string pattern = {};             // POSIX extended regular expression for the whole text
    std::vector<std::string> words = {};  // if not empty, the value is one of these
    bool patterned = false;  // the value's first word is a pattern that matches one of them
    bool span = false;       // a time with a unit
    int64_t least = 0, most = INT64_MAX;
    const Constraint* names = nullptr;  // constrains the keys of a map
};
inline const Constraint kAny = {};
inline const Constraint kSpan = {{}, {}, {}, false, true};
Constraint between(int64_t least, int64_t most);
Constraint named(const Constraint& names,
                 Constraint constraint = kAny);  // constrains the keys of a map, too

class Reader {
  public:
    explicit Reader(const Value& table) : table_(&table), entries_(table.entries()) {}
    explicit Reader(Schema& schema) : schema_(&schema) {}

    // `out` is a string, integer, bool, or struct with a function keys(Reader&, T&), or an
    // optional, vector or map of these. It keeps its value if the key is missing; a vector is
    // replaced, a map is added to.
    template <class T>
    Reader& key(const char* name, T& out, const char* help, const Constraint& constraint = kAny) {
        if (schema_ != nullptr) {
            Schema& here = (*schema_)["properties"][name] = {{"description", help}};
            here.update(schema_of(out, constraint));
            return *this;
        }
        known_.emplace_back(name);
        const auto found = entries_.find(name);
        last_ = found == entries_.end() ? nullptr : &found->second;
        if (last_ != nullptr) read(*last_, out, constraint);
        return *this;
    }

    // Rejects the table unless at least one, or exactly one, of these keys is given.
    void require_any(std::initializer_list<const char*> names) const { require(names, SIZE_MAX); }
    void require_one(std::initializer_list<const char*> names) const { require(names, 1); }

    // Rejects the last key, if it is given, unless `holds`.
    void require_that(bool holds, const std::string& why) const {
        if (last_ != nullptr && !holds) last_->reject(why);
    }

    // Rejects unknown keys.
    void finish() const;

  private:
    void require(std::initializer_list<const char*> names, size_t most) const;

    static void check(const Value& value, const std::string& text, const Constraint& constraint);

    static void read(const Value& value, std::string& out, const Constraint& constraint);
    static void read(const Value& value, int64_t& out, const Constraint& constraint);
    static void read(const Value& value, bool& out, const Constraint&);
    template <class T>
    static void read(const Value& value, std::optional<T>& out, const Constraint& constraint) {
        read(value, out.emplace(), constraint);
    }
    template <class T>
    static void read(const Value& value, std::vector<T>& out, const Constraint& constraint) {
        out.clear();
        for (const Value& item : value.items())
            read(item, out.emplace_back(), constraint);
    }
    template <class T>
    static void read(const Value& value, std::map<std::string, T>& out,
                     const Constraint& constraint) {
        for (const auto& [name, entry] : value.entries()) {
            if (constraint.names != nullptr) check(entry, name, *constraint.names);
            read(entry, out[name], constraint);
        }
    }
    template <class T>
    static void read(const Value& value, T& out, const Constraint&) {
        Reader inner(value);
        keys(inner, out);
        inner.finish();
    }

    static Schema schema_of(std::string&, const Constraint& constraint);
    static Schema schema_of(int64_t&, const Constraint& constraint);
    static Schema schema_of(bool&, const Constraint&) { return {{"type", "boolean"}}; }
    template <class T>
    static Schema schema_of(std::optional<T>&, const Constraint& constraint) {
        T value{};
        return schema_of(value, constraint);
    }
    template <class T>
    static Schema schema_of(std::vector<T>&, const Constraint& constraint) {
        T item{};
        return {{"type", "array"}, {"items", schema_of(item, constraint)}};
    }
    template <class T>
    static Schema schema_of(std::map<std::string, T>&, const Constraint& constraint) {
        T item{};
        return {{"type", "object"}, {"additionalProperties", schema_of(item, constraint)}};
    }
    template <class T>
    static Schema schema_of(T& item, const Constraint&) {
        Schema schema = {{"type", "object"}, {"additionalProperties", false}};
        Reader inner(schema);
        keys(inner, item);
        return schema;
    }

    const Value* table_ = nullptr;
    std::map<std::string, Value> entries_;
    Schema* schema_ = nullptr;
    std::vector<std::string> known_;
    const Value* last_ = nullptr;
};

}  // namespace rvd::lab

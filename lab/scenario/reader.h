// Reads the tables of a scenario key by key. Each call of key() names a key, a member, its meaning
// and its form: the same calls read a file, refuse what does not fit, and make the schema that
// `rvd-lab keys` prints.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>

#include "lab/scenario/document.h"

namespace rvd::lab {

using Schema = nlohmann::ordered_json;

// What a value must be, beyond its type.
struct Form {
    std::string what;                     // for the message: "a property's name", "modem"
    std::string pattern = {};             // POSIX extended regular expression for the whole text
    std::vector<std::string> words = {};  // one of these
    bool patterned = false;               // the first word is a pattern that matches one of them
    bool span = false;                    // a time, with its unit
    int64_t least = 0, most = INT64_MAX;
    const Form* names = nullptr;  // of a map
};
inline const Form kAny = {};
inline const Form kSpan = {{}, {}, {}, false, true};
Form between(int64_t least, int64_t most);
Form named(const Form& names, Form form = kAny);  // a map whose names have a form

class Reader {
  public:
    explicit Reader(const Value& table) : table_(&table), entries_(table.entries()) {}
    explicit Reader(Schema& schema) : schema_(&schema) {}

    // A text, number or truth, a structure that has keys of its own, or an optional, a list or a
    // map of such. Structures have a function keys(Reader&, T&). `out` keeps its value where the
    // key is missing; a list is replaced, a map added to.
    template <class T>
    Reader& key(const char* name, T& out, const char* help, const Form& form = kAny) {
        if (schema_ != nullptr) {
            Schema& here = (*schema_)["properties"][name] = {{"description", help}};
            here.update(schema_of(out, form));
            return *this;
        }
        known_.emplace_back(name);
        const auto found = entries_.find(name);
        last_ = found == entries_.end() ? nullptr : &found->second;
        if (last_ != nullptr) take(*last_, out, form);
        return *this;
    }

    // Refuses the table unless at least, or exactly, one of these keys is given.
    void needs_some(std::initializer_list<const char*> names) const { needs(names, SIZE_MAX); }
    void needs_one(std::initializer_list<const char*> names) const { needs(names, 1); }

    // Refuses the last key, where it is given, unless this holds.
    void must(bool holds, const std::string& why) const {
        if (last_ != nullptr && !holds) last_->refuse(why);
    }

    // Refuses unknown keys.
    void finish() const;

  private:
    void needs(std::initializer_list<const char*> names, size_t most) const;

    static void check(const Value& value, const std::string& text, const Form& form);

    static void take(const Value& value, std::string& out, const Form& form);
    static void take(const Value& value, int64_t& out, const Form& form);
    static void take(const Value& value, bool& out, const Form&);
    template <class T>
    static void take(const Value& value, std::optional<T>& out, const Form& form) {
        take(value, out.emplace(), form);
    }
    template <class T>
    static void take(const Value& value, std::vector<T>& out, const Form& form) {
        out.clear();
        for (const Value& item : value.items())
            take(item, out.emplace_back(), form);
    }
    template <class T>
    static void take(const Value& value, std::map<std::string, T>& out, const Form& form) {
        for (const auto& [name, entry] : value.entries()) {
            if (form.names != nullptr) check(entry, name, *form.names);
            take(entry, out[name], form);
        }
    }
    template <class T>
    static void take(const Value& value, T& out, const Form&) {
        Reader inner(value);
        keys(inner, out);
        inner.finish();
    }

    static Schema schema_of(std::string&, const Form& form);
    static Schema schema_of(int64_t&, const Form& form);
    static Schema schema_of(bool&, const Form&) { return {{"type", "boolean"}}; }
    template <class T>
    static Schema schema_of(std::optional<T>&, const Form& form) {
        T value{};
        return schema_of(value, form);
    }
    template <class T>
    static Schema schema_of(std::vector<T>&, const Form& form) {
        T item{};
        return {{"type", "array"}, {"items", schema_of(item, form)}};
    }
    template <class T>
    static Schema schema_of(std::map<std::string, T>&, const Form& form) {
        T item{};
        return {{"type", "object"}, {"additionalProperties", schema_of(item, form)}};
    }
    template <class T>
    static Schema schema_of(T& item, const Form&) {
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

// Reads the tables of a scenario key by key. Each call names a key, its form and its meaning: the
// same calls read a file, refuse what does not fit, and list the keys for `rvd-lab keys`.
#pragma once

#include <functional>
#include <optional>

#include "lab/scenario/document.h"

namespace rvd::lab {

// What a value must be, beyond its type.
struct Form {
    std::string what;                     // for the message: "a property's name", "modem"
    std::string pattern = {};             // POSIX extended regular expression for the whole text
    std::vector<std::string> words = {};  // one of these
    bool patterned = false;               // the first word is a pattern that matches one of them
    bool span = false;                    // a time, with its unit
    int64_t least = 0, most = INT64_MAX;
};
extern const Form kAny, kSpan;
Form between(int64_t least, int64_t most);

struct Key {
    std::string place;  // "driver.answer[].request"; NAME stands for any name
    std::string help;
    std::string type;  // "text", "number", "truth", "list of ...", "table of ...", "table"
    Form form;
};

class Reader {
  public:
    // Reads `table`, or lists the keys that a table at `place` can have.
    explicit Reader(const Value& table, std::string place = "");
    Reader(std::vector<Key>& keys, std::string place) : place_(std::move(place)), keys_(&keys) {}

    // A text, number, truth or time, or an optional or list of them. `out` keeps its value where
    // the key is missing.
    template <class T>
    Reader& key(const char* name, T& out, const char* help, const Form& form = kAny) {
        if (const Value* node = find(name, help, type_of(out), form)) take(*node, out, form);
        return *this;
    }

    // A table with free keys, whose names have a form of their own.
    template <class T>
    Reader& key(const char* name, std::map<std::string, T>& out, const char* help,
                const Form& names = kAny, const Form& form = kAny) {
        const Value* node = find(name, help, std::string("table of ") + type_of(T()), form);
        if (node == nullptr) return *this;
        for (const auto& [word, value] : table_in(*node)) {
            check(value, word, names);
            take(value, out[word], form);
        }
        return *this;
    }

    // A table with keys of its own.
    Reader& table(const char* name, const char* help, const std::function<void(Reader&)>& body);

    // A table of such tables, by name.
    template <class T>
    Reader& tables(const char* name, std::map<std::string, T>& out, const char* help,
                   const Form& names, void (*body)(Reader&, T&)) {
        return table(name, help, [&](Reader& outer) {
            if (keys_ != nullptr) {
                outer.find("NAME", names.what.c_str(), "table", names);
                outer.list_keys<T>(outer.below("NAME"), body);
            }
            for (const auto& [word, value] : outer.all()) {
                check(value, word, names);
                outer.known_.push_back(word);
                enter(value, outer.below(word), out[word], body);
            }
        });
    }

    // A list of such tables. It replaces `out`.
    template <class T>
    Reader& list(const char* name, std::vector<T>& out, const char* help,
                 void (*body)(Reader&, T&)) {
        const Value* node = find(name, help, "list of table", kAny);
        if (keys_ != nullptr) list_keys<T>(below(name) + "[]", body);
        if (node == nullptr) return *this;
        out.clear();
        for (const Value& item : list_in(*node))
            enter(item, below(name) + "[]", out.emplace_back(), body);
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
    const Value* find(const char* name, const char* help, const std::string& type,
                      const Form& form);
    std::string below(const std::string& name) const;
    void needs(std::initializer_list<const char*> names, size_t most) const;
    const Value::Table& all() const;

    template <class T>
    void list_keys(const std::string& place, void (*body)(Reader&, T&)) {
        T item;
        Reader inner(*keys_, place);
        body(inner, item);
    }
    template <class T>
    static void enter(const Value& node, const std::string& place, T& item,
                      void (*body)(Reader&, T&)) {
        Reader inner(node, place);
        body(inner, item);
        inner.finish();
    }

    static const char* type_of(const std::string&) { return "text"; }
    static const char* type_of(int64_t) { return "number"; }
    static const char* type_of(bool) { return "truth"; }
    template <class T>
    static const char* type_of(const std::optional<T>&) {
        return type_of(T());
    }
    template <class T>
    static std::string type_of(const std::vector<T>&) {
        return std::string("list of ") + type_of(T());
    }

    static const Value::Table& table_in(const Value& node);
    static const Value::List& list_in(const Value& node);
    static void check(const Value& node, const std::string& text, const Form& form);
    static void take(const Value& node, std::string& out, const Form& form);
    static void take(const Value& node, int64_t& out, const Form& form);
    static void take(const Value& node, bool& out, const Form& form);
    template <class T>
    static void take(const Value& node, std::optional<T>& out, const Form& form) {
        take(node, out.emplace(), form);
    }
    template <class T>
    static void take(const Value& node, std::vector<T>& out, const Form& form) {
        out.clear();
        for (const Value& item : list_in(node))
            take(item, out.emplace_back(), form);
    }

    const Value* table_ = nullptr;
    std::string place_;
    std::vector<Key>* keys_ = nullptr;
    std::vector<std::string> known_;
    const Value* last_ = nullptr;
};

}  // namespace rvd::lab

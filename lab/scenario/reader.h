// Reads a scenario's tables key by key. Each call names a key, its place and its meaning, so that
// what can be read, what is refused and what the manual says are one list.
#pragma once

// A scenario that is no TOML is refused with its line; the library's own assertions come before its
// message, and would end the process instead.
#define TOML_ASSERT(expr) static_cast<void>(0)
#include <toml++/toml.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lab/base.h"

namespace rvd::lab {

class Reader {
  public:
    // Later layers are laid over earlier ones, key by key. With `manual` given there are no layers,
    // and every key is written down instead of read.
    Reader(std::vector<const toml::table*> layers, std::string path, std::string* manual = nullptr)
        : layers_(std::move(layers)), path_(std::move(path)), manual_(manual) {}

    Reader& text(const char* key, std::string& out, const char* help);
    Reader& number(const char* key, int64_t& out, const char* help);
    Reader& number(const char* key, std::optional<int64_t>& out, const char* help);
    Reader& number(const char* key, int& out, const char* help);
    Reader& flag(const char* key, bool& out, const char* help);
    Reader& time(const char* key, Time& out, const char* help);
    Reader& time(const char* key, std::optional<Time>& out, const char* help);
    Reader& texts(const char* key, std::vector<std::string>& out, const char* help);
    Reader& numbers(const char* key, std::vector<int64_t>& out, const char* help);
    Reader& map(const char* key, std::map<std::string, std::string>& out, const char* help);
    Reader& map(const char* key, std::map<std::string, int64_t>& out, const char* help);

    using Body = std::function<void(Reader&)>;
    Reader& table(const char* key, const char* help, const Body& body);

    // A table whose keys are free names, each a table of its own.
    Reader& named(const char* key, const char* help,
                  const std::function<void(const std::string&, Reader&)>& body);

    // An array of tables: the last layer that has the key gives all of them.
    template <class T>
    Reader& list(const char* key, std::vector<T>& out, const char* help,
                 const std::function<void(Reader&, T&)>& body) {
        const toml::array* items = items_of(key, help);
        if (items != nullptr) out.clear();
        const size_t count = manual_ != nullptr ? 1 : items != nullptr ? items->size() : 0;
        for (size_t i = 0; i < count; i++) {
            T item{};
            Reader reader = item_reader(items, i, key);
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

    // Refuses every key that nobody asked for.
    void finish() const;

    // Throws Unable, naming the place of the innermost table.
    [[noreturn]] void refuse(const std::string& why) const;

  private:
    const toml::node* find(const char* key, const char* help);
    const toml::array* items_of(const char* key, const char* help);
    Reader item_reader(const toml::array* items, size_t index, const char* key) const;
    std::vector<const toml::table*> tables_of(const char* key);
    std::string below(const std::string& key) const;

    std::vector<const toml::table*> layers_;
    std::string path_;
    std::string* manual_;
    std::vector<std::string> known_;
};

}  // namespace rvd::lab

// A scenario file as a tree of values that know their line.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "lab/base.h"

// toml++ would abort on an assertion before it reports where a file is not valid TOML.
#define TOML_ASSERT(expr) static_cast<void>(0)
#include <toml++/toml.h>

namespace rvd::lab {

// A node of a document. A table is merged over its base key by key, tables in it likewise; any
// other value replaces the base's.
struct Value {
    const toml::node* node;
    const toml::node* base = nullptr;  // the table under this one
    std::string path = {};             // "driver.answer[]"

    // The entries of a table, the items of a list. Throw Error if the value is something else.
    std::map<std::string, Value> entries() const;
    std::vector<Value> items() const;

    // Throws Error with file and line.
    [[noreturn]] void reject(const std::string& why) const;
};

// Throws Error with `name`, the line and the reason.
toml::table parse_document(const std::string& text, const std::string& name);

}  // namespace rvd::lab

// A scenario file as a tree of values with their places.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "lab/base.h"

// The library's assertions would abort before it reports where a file is no TOML.
#define TOML_ASSERT(expr) static_cast<void>(0)
#include <toml++/toml.h>

namespace rvd::lab {

// A node of a document. A table may be laid over another one, table by table and key by key;
// anything else replaces what is beneath it.
struct Value {
    const toml::node* node;
    const toml::node* base = nullptr;  // the table that this table is laid over
    std::string path = {};             // "driver.answer[]"

    // These throw Error where the value is no table or list.
    std::map<std::string, Value> entries() const;
    std::vector<Value> items() const;

    // Throws Error with the file and the line.
    [[noreturn]] void reject(const std::string& why) const;
};

// Throws Error with `name`, the line and what is wrong there.
toml::table parse_document(const std::string& text, const std::string& name);

}  // namespace rvd::lab

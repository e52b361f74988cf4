// A TOML file as a tree of values with their places. Only document.cpp includes the TOML library.
#pragma once

#include <map>
#include <string>
#include <variant>
#include <vector>

#include "lab/base.h"

namespace rvd::lab {

struct Value {
    using List = std::vector<Value>;
    using Table = std::map<std::string, Value>;

    // Without a value for what no scenario takes: dates and fractions.
    std::variant<std::monostate, bool, int64_t, std::string, List, Table> value;
    std::string place;  // "FILE:LINE"

    template <class T>
    const T* as() const {
        return std::get_if<T>(&value);
    }

    // Throws Unable with the place.
    [[noreturn]] void refuse(const std::string& why) const { throw Unable(place + ": " + why); }
};

// Throws Unable with `name`, the line and what is wrong there.
Value parse_document(const std::string& text, const std::string& name);

// `over` laid over `base`: table by table and key by key; anything else replaces.
Value merged(Value base, const Value& over);

}  // namespace rvd::lab

// A property's value, read once.
#pragma once

#include <cutils/properties.h>

namespace rvd {

class Property {
  public:
    Property(const char* name, const char* fallback) { property_get(name, value_, fallback); }

    const char* text() const { return value_; }
    // Of a flag, only the first character counts.
    bool is_set() const { return value_[0] == '1'; }

  private:
    char value_[PROPERTY_VALUE_MAX];
};

}  // namespace rvd

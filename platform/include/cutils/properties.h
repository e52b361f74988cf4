// Android's system properties, with the platform's own signatures. A device build uses the
// platform's header and cutils library instead.
#pragma once

#include <stdint.h>

// Sizes include the terminating NUL.
#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

// Fills `value` (PROPERTY_VALUE_MAX bytes) with the property's value and returns its length. If the
// property is unset or empty, uses `default_value`, truncated to fit, or "" if that is null. Leaves
// errno unchanged.
int property_get(const char* key, char* value, const char* default_value);

// The value as a number, parsed like strtoimax with base 0; text after the digits is ignored.
// Returns `default_value` if the property is unset, has no digits or does not fit. Leaves errno
// unchanged.
int32_t property_get_int32(const char* key, int32_t default_value);

// Sets the property, atomically for all readers. A null value counts as "". Returns 0, or -1 for an
// illegal name, a value that is too long, a second value for a "ro." name, or a store that cannot
// be written. errno is undefined.
int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif

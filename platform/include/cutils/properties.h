// Android's system properties, with the platform's own signatures. On a device the platform's
// header and its cutils library take this file's place.
#pragma once

#include <stdint.h>

// Sizes include the terminating NUL.
#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

// Fills `value` (PROPERTY_VALUE_MAX bytes) with the property's value and returns its length. A
// property that is not set, or is empty, gives `default_value` instead, cut to fit; "" and 0 where
// that is null. errno is left alone.
int property_get(const char* key, char* value, const char* default_value);

// The value as a number: leading blanks and a sign are accepted, 0x and 0 select the base, text
// after the digits is ignored. `default_value` where the property is not set, no digit is found or
// the number does not fit. errno is left alone.
int32_t property_get_int32(const char* key, int32_t default_value);

// Sets the property: 0, or -1 for a name or a value that a property cannot have, a second value for
// a name that begins with "ro.", or a store that takes no values. A null value counts as "". Seen
// by every process at once, and whole. errno says nothing.
int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif

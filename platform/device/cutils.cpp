// Stubs of the platform's property library, only to link against: a phone has the real one.
#include <cutils/properties.h>

int property_get(const char*, char*, const char*) {
    return 0;
}

int32_t property_get_int32(const char*, int32_t) {
    return 0;
}

int property_set(const char*, const char*) {
    return 0;
}

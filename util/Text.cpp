#include "util/Text.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "util/Util.h"

namespace rvd {

bool format_text(TextBuffer buffer, const char* format, ...) {
    memset(buffer.data, 0, buffer.size);
    va_list values;
    va_start(values, format);
    const int length = vsnprintf(buffer.data, buffer.size, format, values);
    va_end(values);
    return length >= 0 && static_cast<size_t>(length) < buffer.size;
}

bool copy_text(TextBuffer buffer, const char* text, size_t length) {
    const size_t whole = strnlen(text, length);
    const size_t kept = whole < buffer.size ? whole : buffer.size - 1;
    memcpy(buffer.data, text, kept);
    buffer.data[kept] = '\0';
    return kept == whole;
}

void Util::toUpperCase(const char* source, char* destination) {
    for (; *source != '\0'; ++source, ++destination) {
        const bool small = *source >= 'a' && *source <= 'z';
        *destination = static_cast<char>(small ? *source & ~0x20 : *source);
    }
}

tm local_now() {
    const time_t now = time(nullptr);
    tm local = {};
    localtime_r(&now, &local);
    return local;
}

}  // namespace rvd

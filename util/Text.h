// The one way to fill fixed-size text: bounded, always terminated, checked by the compiler.
#pragma once

#include <time.h>

#include <cstddef>

namespace rvd {

constexpr size_t kNameSize = 64;  // of a file's name and a time stamp
constexpr size_t kPathSize = 512;

// Room for text, its terminator included. Does not own the bytes.
struct TextRoom {
    template <size_t N>
    TextRoom(char (&array)[N]) : data(array), size(N) {}
    TextRoom(char* first, size_t bytes) : data(first), size(bytes) {}

    char* data;
    size_t size;  // at least 1
};

// Formats into `room`, cut to fit; the rest of it is zero, so that a field which is handed on whole
// keeps nothing of an earlier text. False when it had to be cut.
bool format_text(TextRoom room, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Copies at most `length` bytes of `text` into `room`, up to a NUL among them. False when cut.
bool copy_text(TextRoom room, const char* text, size_t length);

// The local time of now, for strftime.
tm local_now();

}  // namespace rvd

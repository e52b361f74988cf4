// The only way to fill fixed-size text: bounded, always terminated, format checked by the compiler.
#pragma once

#include <time.h>

#include <cstddef>

namespace rvd {

constexpr size_t kNameSize = 64;  // of a file name, and of a time stamp
constexpr size_t kPathSize = 512;

// A buffer for text and its terminator. Does not own the bytes.
struct TextBuffer {
    template <size_t N>
    TextBuffer(char (&array)[N]) : data(array), size(N) {}
    TextBuffer(char* first, size_t bytes) : data(first), size(bytes) {}

    char* data;
    size_t size;  // at least 1
};

// Formats into `buffer` and fills the rest with zeros, since some buffers go to the driver whole.
// False if the text was truncated.
bool format_text(TextBuffer buffer, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Copies at most `length` bytes of `text`, up to a NUL, into `buffer`. False if the text was
// truncated.
bool copy_text(TextBuffer buffer, const char* text, size_t length);

// The current local time.
tm local_now();

}  // namespace rvd

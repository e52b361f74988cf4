// The Android log on a host: one line of text for each message, to the file named by
// RVD_ANDROID_LOG or to standard error. All log buffers share that one output.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <log/log.h>

#include "platform/host/log_sink.h"

namespace {

constexpr size_t kMaxMessage = 1023;
constexpr size_t kMaxTag = 100;

const rvd::host::LogSink& sink() {
    static const rvd::host::LogSink chosen(getenv("RVD_ANDROID_LOG"));
    return chosen;
}

char priority_letter(int priority) {
    switch (priority) {
        case ANDROID_LOG_VERBOSE:
            return 'V';
        case ANDROID_LOG_DEBUG:
            return 'D';
        case ANDROID_LOG_INFO:
            return 'I';
        case ANDROID_LOG_WARN:
            return 'W';
        case ANDROID_LOG_ERROR:
            return 'E';
        case ANDROID_LOG_FATAL:
            return 'F';
        default:
            return '?';
    }
}

}  // namespace

int __android_log_buf_print(int, int prio, const char* tag, const char* fmt, ...) {
    const int saved_errno = errno;
    char line[sizeof("D/: ") + kMaxTag + kMaxMessage + 1];
    const int head = snprintf(line, sizeof(line), "%c/%.*s: ", priority_letter(prio),
                              static_cast<int>(kMaxTag), tag != nullptr ? tag : "");
    char* const message = line + head;
    message[0] = '\0';

    errno = saved_errno;  // for %m in the format
    va_list values;
    va_start(values, fmt);
    vsnprintf(message, kMaxMessage + 1, fmt, values);
    va_end(values);

    size_t length = strlen(message);
    while (length > 0 && message[length - 1] == '\n')
        --length;
    message[length] = '\n';
    sink().write_line(line, static_cast<size_t>(head) + length + 1);
    errno = saved_errno;
    return 1;
}

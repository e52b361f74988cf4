// Android's log, with the platform's own signatures. A device build uses the platform's header and
// log library instead.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum log_id {
    LOG_ID_MAIN = 0,
    LOG_ID_RADIO = 1,
    LOG_ID_EVENTS = 2,
    LOG_ID_SYSTEM = 3,
    LOG_ID_CRASH = 4,
} log_id_t;

typedef enum android_LogPriority {
    ANDROID_LOG_VERBOSE = 2,
    ANDROID_LOG_DEBUG = 3,
    ANDROID_LOG_INFO = 4,
    ANDROID_LOG_WARN = 5,
    ANDROID_LOG_ERROR = 6,
    ANDROID_LOG_FATAL = 7,
} android_LogPriority;

// Adds one line to a log buffer, truncated to 1023 bytes. Safe on any thread. A line may be dropped
// when the log is not read fast enough. Leaves errno unchanged. Returns 1, also for a dropped line.
int __android_log_buf_print(int bufID, int prio, const char* tag, const char* fmt, ...)
        __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

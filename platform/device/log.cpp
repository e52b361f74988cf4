// Stub of the platform's log library, only to link against: a phone has the real one.
#include <log/log.h>

int __android_log_buf_print(int, int, const char*, const char*, ...) {
    return 0;
}

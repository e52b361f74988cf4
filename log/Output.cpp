// The message operations. A line is formatted once and written with one call to each log, without
// the prefix that is not for that log.
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include <log/log.h>

#include "bootdump/BootDump.h"
#include "log/Log.h"
#include "main/Container.h"

namespace rvd {

int kmsg_fd = STDOUT_FILENO;

namespace {

constexpr char kAndroidTag[] = "boot";

// Where a line begins for the Android log and for the crash text log. The level and "lnkm: " are
// for the kernel log only.
constexpr size_t kAndroidStart = sizeof("<6>lnkm: ") - 1;
constexpr size_t kCrashLogStart = sizeof("<6>lnkm: rvd: ") - 1;

// One overload for each strerror_r: POSIX returns a status, GNU the text.
[[maybe_unused]] const char* error_text(int status, const char* buffer) {
    return status == 0 ? buffer : "Unknown error";
}
[[maybe_unused]] const char* error_text(const char* text, const char*) {
    return text;
}

void write_line(int fd, const char* line, size_t length) {
    // A failing sink must not keep the line from the next one.
    const ssize_t written = write(fd, line, length);
    static_cast<void>(written);
}

class Line {
  public:
    __attribute__((format(printf, 3, 0)))
    Line(const char* tag, const char* format, va_list values) {
        length_ = snprintf(text_, sizeof(text_), "<6>lnkm: rvd: %s: ", tag);
        append(format, values);
    }

    __attribute__((format(printf, 4, 0)))
    Line(int error, const char* tag, const char* format, va_list values)
        : priority_(ANDROID_LOG_ERROR) {
        char buffer[128] = "";
        const char* reason = error_text(strerror_r(error, buffer, sizeof(buffer)), buffer);
        length_ = snprintf(text_, sizeof(text_), "<3>lnkm: rvd: (ERR! %s) %s: ", reason, tag);
        append(format, values);
    }

    void to_logs() const {
        write_line(kmsg_fd, text_, length());
        __android_log_buf_print(LOG_ID_RADIO, priority_, kAndroidTag, "%s", text_ + kAndroidStart);
    }

    void to_crash_log() const {
        const std_dump_args* dump = Container::getStdDump();
        if (dump == nullptr || dump->fd[DUMP_FD_LOG] < 0) return;
        write_line(dump->fd[DUMP_FD_LOG], text_ + kCrashLogStart, length() - kCrashLogStart);
    }

  private:
    size_t length() const { return static_cast<size_t>(length_); }

    __attribute__((format(printf, 2, 0))) void append(const char* format, va_list values) {
        constexpr int kCapacity = static_cast<int>(sizeof(text_)) - 1;
        length_ = std::clamp(length_, 0, kCapacity);
        const int added = vsnprintf(text_ + length_, sizeof(text_) - length(), format, values);
        // Negative if a conversion fails: the line then ends after the tag.
        length_ += added < 0 ? snprintf(text_ + length_, sizeof(text_) - length(), "\n") : added;
        if (length_ > kCapacity) {
            length_ = kCapacity;
            text_[length_ - 1] = '\n';
        }
    }

    int priority_ = ANDROID_LOG_DEBUG;
    int length_ = 0;
    char text_[Log::kMaxRecord + 1];
};

}  // namespace

void Log::kprintf_init() {
    kmsg_fd = open("/dev/kmsg", O_RDWR | O_CLOEXEC);
}

void Log::kprintf_deinit() {
    if (kmsg_fd != STDOUT_FILENO) close(kmsg_fd);
}

void Log::info(const char* tag, const char* format, ...) {
    const int saved_errno = errno;
    va_list values;
    va_start(values, format);
    Line(tag, format, values).to_logs();
    va_end(values);
    errno = saved_errno;
}

void Log::error(const char* tag, const char* format, ...) {
    const int saved_errno = errno;
    va_list values;
    va_start(values, format);
    Line(saved_errno, tag, format, values).to_logs();
    va_end(values);
    errno = saved_errno;
}

void Log::dump_info(const char* tag, const char* format, ...) {
    const int saved_errno = errno;
    va_list values;
    va_start(values, format);
    const Line line(tag, format, values);
    va_end(values);
    line.to_logs();
    line.to_crash_log();
    errno = saved_errno;
}

void Log::dump_error(const char* tag, const char* format, ...) {
    const int saved_errno = errno;
    va_list values;
    va_start(values, format);
    const Line line(saved_errno, tag, format, values);
    va_end(values);
    line.to_logs();
    line.to_crash_log();
    errno = saved_errno;
}

}  // namespace rvd

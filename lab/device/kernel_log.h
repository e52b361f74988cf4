// Reads the daemon's records from /dev/kmsg.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

#include "lab/base.h"

namespace rvd::lab {

class KernelLog {
  public:
    // Starts at the end of the log. Throws Error.
    KernelLog() : fd_(open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
        if (read_file("/proc/sys/kernel/printk_devkmsg") != "on\n")
            throw Unsupported(
                    "the kernel's log loses records; run: sysctl kernel.printk_devkmsg=on");
        if (fd_ < 0 || lseek(fd_, 0, SEEK_END) < 0) throw_errno("cannot read the kernel's log");
    }

    int fd() const { return fd_; }  // readable while a record is pending

    // Gives the next record of the daemon's; false if there is none. Throws Error if records were
    // lost.
    bool next(int& level, std::string& text) {
        char record[8192];
        for (;;) {
            const ssize_t n = read(fd_, record, sizeof(record));
            if (n < 0 && errno == EPIPE)
                throw Error("the kernel's log overflowed before it was read");
            if (n <= 0) return false;
            level = atoi(record) & kLevelMask;
            text = text_of(std::string(record, static_cast<size_t>(n)));
            if (text.rfind(kPrefix, 0) != 0) continue;
            lines_ += (level == kError ? "E/boot: " : "D/boot: ") + text.substr(sizeof("lnkm:")) +
                      "\n";
            return true;
        }
    }

    // The daemon's lines that are in only one of this log and `android`, in any order: lines of
    // different threads have none.
    std::string differences(const std::string& android) const {
        const auto one = lines_of(lines_), other = lines_of(android);
        std::ostringstream lines;
        std::set_symmetric_difference(one.begin(), one.end(), other.begin(), other.end(),
                                      std::ostream_iterator<std::string>(lines, "\n"));
        return lines.str();
    }

  private:
    static constexpr char kPrefix[] = "lnkm: rvd: ";
    static constexpr int kLevelMask = 7, kError = 3;

    // A record is "LEVEL,NUMBER,TIME,-;TEXT", with "\x0a" for a line break in the text.
    static std::string text_of(const std::string& record) {
        std::string text;
        for (size_t i = record.find(';') + 1; i < record.find('\n'); i++) {
            unsigned code = 0;
            const bool escape = sscanf(record.c_str() + i, "\\x%2x", &code) == 1;
            text += escape ? static_cast<char>(code) : record[i];
            if (escape) i += 3;
        }
        return text;
    }

    // Without empty lines: the logs treat trailing line breaks differently.
    static std::multiset<std::string> lines_of(const std::string& text) {
        std::multiset<std::string> lines;
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);) {
            if (!line.empty()) lines.insert(line);
        }
        return lines;
    }

    const int fd_;
    std::string lines_;  // as the Android log has them
};

}  // namespace rvd::lab

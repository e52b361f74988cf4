// Lookup of a key in the kernel command line.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "log/Log.h"
#include "util/ScopedFd.h"
#include "util/Util.h"

namespace rvd {

namespace {

constexpr char kCmdlinePath[] = "/proc/cmdline";

void read_cmdline(char* buf, unsigned int size) {
    buf[0] = '\0';
    const ScopedFd cmdline(open(kCmdlinePath, O_RDONLY | O_CLOEXEC));
    if (!cmdline.valid()) return;
    const ssize_t count = read(cmdline.get(), buf, size - 1);
    if (count <= 0) {
        buf[0] = '\0';
        return;
    }
    const size_t length = static_cast<size_t>(count);
    buf[buf[length - 1] == '\n' ? length - 1 : length] = '\0';
}

}  // namespace

char* Util::get_cmdline_str(char* buf, unsigned int size, const char* key) {
    if (size == 0) return nullptr;
    read_cmdline(buf, size);
    const size_t key_length = strlen(key);
    for (char* word = buf; word != nullptr;) {
        char* blank = strchr(word, ' ');
        if (blank != nullptr) *blank = '\0';
        if (*word == '\0') return nullptr;
        if (strncmp(word, key, key_length) == 0) {
            Log::info("get_cmdline_str", "find str %s form %s\n", word, kCmdlinePath);
            return word;
        }
        word = blank == nullptr ? nullptr : blank + 1;
    }
    return nullptr;
}

}  // namespace rvd

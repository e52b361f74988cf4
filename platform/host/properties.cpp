// The property store on a host: the directory RVD_PROPERTY_DIR with one file per property, whose
// content is the value. Readers need no lock: a file gets its name only once its value is complete.
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include <cutils/properties.h>

namespace {

constexpr size_t kMaxValue = PROPERTY_VALUE_MAX - 1;
constexpr char kDefaultStore[] = "/run/rvd/properties";
constexpr char kNameCharacters[] =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._:@-";

// A path within the store.
struct Path {
    char text[PATH_MAX];
};

// The environment is read once, so that a later change to it cannot split the store.
const Path& store() {
    static const Path path = [] {
        Path chosen;
        const char* named = getenv("RVD_PROPERTY_DIR");
        if (named == nullptr || *named == '\0') named = kDefaultStore;
        // A path beyond PATH_MAX gives an empty store.
        if (strlen(named) >= sizeof(chosen.text)) named = "";
        strcpy(chosen.text, named);
        return chosen;
    }();
    return path;
}

bool is_legal_name(const char* key) {
    if (key == nullptr) return false;
    const size_t length = strlen(key);
    return length > 0 && strspn(key, kNameCharacters) == length && key[0] != '.' &&
           key[length - 1] != '.' && strstr(key, "..") == nullptr;
}

bool is_read_only(const char* key) {
    return strncmp(key, "ro.", strlen("ro.")) == 0;
}

// False if the path is too long, or there is no store.
bool make_path(Path& path, const char* file) {
    if (store().text[0] == '\0') return false;
    const int length = snprintf(path.text, sizeof(path.text), "%s/%s", store().text, file);
    return length > 0 && static_cast<size_t>(length) < sizeof(path.text);
}

// Reads up to kMaxValue bytes and terminates them; "" if a read fails.
void read_value(const char* path, char* value) {
    value[0] = '\0';
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return;
    size_t length = 0;
    while (length < kMaxValue) {
        const ssize_t got = read(fd, value + length, kMaxValue - length);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) length = 0;
        if (got <= 0) break;
        length += static_cast<size_t>(got);
    }
    value[length] = '\0';
    close(fd);
}

bool write_value(int fd, const char* value, size_t size) {
    while (size > 0) {
        const ssize_t put = write(fd, value, size);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        value += put;
        size -= static_cast<size_t>(put);
    }
    return true;
}

// Creates a file under a unique temporary name; no property's name begins with a dot. The name may
// be taken, by a process with the same pid in another pid namespace or by one that was killed: then
// the next one is tried.
int create_draft(Path& path) {
    static std::atomic<unsigned> serial{0};
    constexpr int kTries = 1000;
    for (int i = 0; i < kTries; ++i) {
        char file[64];
        snprintf(file, sizeof(file), ".draft.%d.%u", getpid(), serial.fetch_add(1));
        if (!make_path(path, file)) return -1;
        const int fd = open(path.text, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
    return -1;
}

// Renames the finished draft to the property's name. A "ro." property is linked instead, which
// fails if the name exists: of two writers one wins.
bool publish(const Path& draft, const Path& property, bool only_once) {
    if (!only_once && rename(draft.text, property.text) == 0) return true;
    const bool linked = only_once && link(draft.text, property.text) == 0;
    unlink(draft.text);
    return linked;
}

}  // namespace

int property_get(const char* key, char* value, const char* default_value) {
    const int saved_errno = errno;
    value[0] = '\0';
    Path path;
    if (is_legal_name(key) && make_path(path, key)) read_value(path.text, value);
    size_t length = strlen(value);
    if (length == 0 && default_value != nullptr) {
        length = strnlen(default_value, kMaxValue);
        memcpy(value, default_value, length);
        value[length] = '\0';
    }
    errno = saved_errno;
    return static_cast<int>(length);
}

int32_t property_get_int32(const char* key, int32_t default_value) {
    const int saved_errno = errno;
    char text[PROPERTY_VALUE_MAX];
    property_get(key, text, nullptr);
    char* end = text;
    const intmax_t number = strtoimax(text, &end, 0);
    errno = saved_errno;
    // A number too large even for intmax_t comes back as its limit, which is out of range here.
    const bool fits = number >= INT32_MIN && number <= INT32_MAX;
    return end != text && fits ? static_cast<int32_t>(number) : default_value;
}

int property_set(const char* key, const char* value) {
    if (value == nullptr) value = "";
    const size_t size = strlen(value);
    Path property;
    Path draft;
    if (!is_legal_name(key) || size > kMaxValue || !make_path(property, key)) return -1;
    const int fd = create_draft(draft);
    if (fd < 0) return -1;
    bool complete = write_value(fd, value, size);
    complete = close(fd) == 0 && complete;
    if (!complete) {
        unlink(draft.text);
        return -1;
    }
    return publish(draft, property, is_read_only(key)) ? 0 : -1;
}

// Copies of the kernel log: on the main thread during a dump, on detached threads otherwise.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/klog.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <new>

#include "log/Log.h"
#include "util/Heap.h"
#include "util/Io.h"
#include "util/Property.h"
#include "util/ScopedFd.h"
#include "util/Text.h"

namespace rvd {

namespace {

constexpr int kReadAll = 3;  // SYSLOG_ACTION_READ_ALL: reads the buffer without clearing it
constexpr mode_t kSavedMode = 0664;
constexpr size_t kSavedPathSize = 256;

constexpr char kChipProperty[] = "ro.hardware.chipname";
constexpr const char* kChipsWithoutSaves[] = {"talvir410", "talvir4180"};

// A request with its own copy of the name.
struct OwnedRequest {
    Log::SaveRequest request;
    HeapPtr<char> name;
};

std::unique_ptr<OwnedRequest> own_request(int flags, const char* name) {
    std::unique_ptr<OwnedRequest> owned(new (std::nothrow) OwnedRequest);
    if (!owned) return nullptr;
    owned->name.reset(strdup(name));
    if (!owned->name) return nullptr;
    owned->request = {flags, owned->name.get()};
    return owned;
}

void* save_on_thread(void* argument) {
    const std::unique_ptr<OwnedRequest> owned(static_cast<OwnedRequest*>(argument));
    return Log::_save_logs(&owned->request);
}

bool chip_saves_in_background() {
    const Property chip(kChipProperty, "NONE");
    for (const char* without : kChipsWithoutSaves) {
        if (strncmp(chip.text(), without, strlen(without)) == 0) return false;
    }
    return true;
}

// Fills `path` with the file of a request; false if its flags select none.
bool saved_path(const Log::SaveRequest& request, const char* stamp, TextBuffer path) {
    if (request.flags & Log::kSaveLast) {
        format_text(path, "%s/%s_last.log", Log::get_log_dir(), request.name);
        return true;
    }
    if (request.flags & Log::kSaveStamped) {
        format_text(path, "%s/%s_%s.log", Log::get_log_dir(), request.name, stamp);
        return true;
    }
    return false;
}

}  // namespace

void Log::save_logs(int flags, const char* name) {
    SaveRequest request = {flags, name};
    _save_logs(&request);
}

void Log::save_logs_thread(int flags, const char* name) {
    if (debug_level == 0 || !chip_saves_in_background()) return;
    std::unique_ptr<OwnedRequest> owned = own_request(flags, name);
    pthread_t thread = {};
    if (!owned || pthread_create(&thread, nullptr, save_on_thread, owned.get()) != 0) {
        info("save_logs_thread", "pthread_create fail\n");
        return;
    }
    static_cast<void>(owned.release());
    pthread_detach(thread);
}

void Log::save_now(const char* format, ...) {
    char name[kNameSize];
    va_list values;
    va_start(values, format);
    vsnprintf(name, sizeof(name), format, values);
    va_end(values);
    save_logs(kSaveStamped, name);
}

void Log::save_in_background(const char* format, ...) {
    char name[kNameSize];
    va_list values;
    va_start(values, format);
    vsnprintf(name, sizeof(name), format, values);
    va_end(values);
    save_logs_thread(kSaveStamped, name);
}

void* Log::_save_logs(void* argument) {
    const SaveRequest& request = *static_cast<SaveRequest*>(argument);
    if (create_log_directory(get_log_dir()) != 0) return nullptr;
    info("_save_logs", "save dmesg begin...\n");
    char stamp[sizeof("YYYYMMDDhhmm_ss")];
    const tm now = local_now();
    strftime(stamp, sizeof(stamp), "%Y%m%d%H%M_%S", &now);
    char path[kSavedPathSize];
    if (!saved_path(request, stamp, path)) return nullptr;
    dmesg_to_file(path);
    info("_save_logs", "%s\n", path);
    return nullptr;
}

int Log::dmesg_to_file(const char* path) {
    const HeapPtr<char> ring(static_cast<char*>(calloc(1, kRingSize + 1)));
    if (!ring) {
        info("dmesg_to_file", "ERR! malloc(%d) fail\n", kRingSize + 1);
        return -1;
    }
    const ScopedFd file(open(
            path, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kSavedMode));
    if (!file.valid()) {
        error("dmesg_to_file", "file open fail %s\n", path);
        return -1;
    }
    fchmod(file.get(), kSavedMode);
    if (lseek(file.get(), 0, SEEK_END) < 0) {
        error("dmesg_to_file", "lseek fail %s\n", path);
        return 0;
    }
    const int count = klogctl(kReadAll, ring.get(), kRingSize);
    if (count < 0) {
        info("dmesg_to_file", "klogctl fail\n");
        return -1;
    }
    const size_t length = static_cast<size_t>(count);
    ring.get()[length] = '\0';
    if (write_all(file.get(), ring.get(), length + 1) < 0) {
        error("dmesg_to_file", "write fail\n");
        return 0;
    }
    if (fsync(file.get()) < 0) error("dmesg_to_file", "ERR! fsync(fd) fail\n");
    flush_directory(get_log_dir());
    return 0;
}

}  // namespace rvd

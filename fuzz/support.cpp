#include "fuzz/support.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include <log/log.h>

#include "bootdump/BootDump.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/ProtocolVelo.h"

// A device refuses an image of gigabytes with null, and so must the sanitizer.
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=256";
}

namespace rvd::fuzz {

namespace {

namespace fs = std::filesystem;

constexpr rlim_t kLargestFile = 1 << 20;  // an NV file is made as large as the table says

thread_local Input* answers;  // null outside a run
unsigned long granted;

class Phone {
  public:
    Phone() {
        std::string name = fs::temp_directory_path() / "rvd-fuzz-XXXXXX";
        root = mkdtemp(name.data());
        for (const char* directory :
             {"/data/vendor/log/rvd/err", "/dev/block/by-name", "/efs", "/mnt/vendor/efs", "/proc",
              "/properties", "/sys/power", "/sys/devices/platform/lnkm/sim"})
            fs::create_directories(root + directory);
        for (const char* node : {"umts_boot0", "umts_ramdump0", "nr_boot0", "nr_ramdump0"})
            fs::create_symlink("/dev/null", root + "/dev/" + node);
        setenv("RVD_PROPERTY_DIR", (root + "/properties").c_str(), 1);
        kmsg_fd = -1;
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {kLargestFile, kLargestFile};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~Phone() {
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }

    std::string root;
};

Phone& phone() {
    static Phone instance;
    return instance;
}

Modem set_up(const char* type) {
    static ProtocolVelo protocol;
    phone();
    Container::setProtocol(&protocol);
    std::string words[] = {"rvd", "-t", type};
    char* argv[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    require(Container::parseArgs(3, argv) == PARSE_OK, "a modem is set up");
    return {*Container::getRvdArgs(), Container::getBootDump(), Container::getSrinfo()};
}

bool closed(const int32_t (&slots)[kFdSlots]) {
    return std::all_of(slots, slots + kFdSlots, [](int32_t fd) { return fd == -1; });
}

int lowest_free() {
    const int fd = dup(STDIN_FILENO);
    close(fd);
    return fd;
}

template <class Record>
void fill(void* record) {
    const Record answer = answers->take<Record>();
    memcpy(record, &answer, sizeof(answer));
}

void check_request(unsigned long request, const void* record) {
    if (request == IOCTL_LOAD_CP_IMAGE) {
        cp_image image;
        memcpy(&image, record, sizeof(image));
        const volatile char* bytes = reinterpret_cast<const volatile char*>(image.image_addr);
        for (uint32_t i = 0; i < image.len; ++i)
            static_cast<void>(bytes[i]);
    } else if (request == IOCTL_SET_SRINFO) {
        require(static_cast<const srinfo_buf*>(record)->len - 1 < sizeof(srinfo_buf::data),
                "a record that is handed back has 1 to 4092 bytes");
    } else if (request == IOCTL_TRIGGER_KERNEL_PANIC) {
        require(memchr(record, '\0', kCrashReasonSize) != nullptr, "a crash reason is terminated");
    }
}

void answer_request(unsigned long request, void* record) {
    if (request == IOCTL_GET_LOG_DUMP) {
        static_cast<cp_log_dump*>(record)->size = answers->take<uint32_t>();
    } else if (request == IOCTL_GET_CP_CRASH_REASON) {
        fill<cp_crash_reason>(record);
    } else if (request == IOCTL_GET_LNKM_VERSION) {
        fill<lnkm_version>(record);
    } else if (request == IOCTL_GET_SRINFO) {
        fill<srinfo_buf>(record);
    }
}

// Most requests are granted, so that a run gets far.
int driver(unsigned long request, void* record) {
    check_request(request, record);
    answer_request(request, record);
    const uint8_t outcome = answers->take<uint8_t>();
    errno = EIO;
    const int result = outcome == 0xFF ? -1 : outcome == 0xFE ? answers->take<int>() : 0;
    if (result >= 0) granted = request;
    return result;
}

}  // namespace

void require(bool holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "does not hold: %s\n", what);
    abort();
}

Modem& tq720() {
    static Modem modem = set_up("tq720");
    return modem;
}

Modem& vk880() {
    tq720();
    static Modem modem = set_up("vk880");
    return modem;
}

Run::Run(Input* input) {
    vk880();
    granted = 0;
    lowest_free_ = lowest_free();
    answers = input;
}

Run::~Run() {
    answers = nullptr;
    for (const Modem* modem : {&tq720(), &vk880()}) {
        require(closed(modem->controller->getStdBoot()->fd), "the boot record is closed");
        require(closed(modem->controller->getStdDump()->fd), "the dump record is closed");
    }
    require(lowest_free() == lowest_free_, "no descriptor is left open");
}

bool Run::granted_last(unsigned long request) {
    return granted == request;
}

std::string on_phone(const char* path) {
    for (const char* prefix : {"/data/", "/dev/block/", "/dev/nr_", "/dev/umts_", "/efs/", "/mnt/",
                               "/sys/", "/proc/cmdline"}) {
        if (strncmp(path, prefix, strlen(prefix)) == 0) return phone().root + path;
    }
    return path;
}

void write_on_phone(const char* path, std::string_view content) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    require(write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()),
            "a file of the phone is written");
    close(fd);
}

std::string read_on_phone(const char* path) {
    const int fd = open(path, O_RDONLY);
    if (fd < 0) return "";
    std::string content(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
    require(pread(fd, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()),
            "a file of the phone is read");
    close(fd);
    return content;
}

void set_property_file(const char* name, std::string_view content) {
    write_on_phone((phone().root + "/properties/" + name).c_str(), content);
}

}  // namespace rvd::fuzz

// The calls that the daemon reaches the phone with. Outside a run, and off the phone, they do what
// they always do: the fuzzer lives in the same process.

using rvd::fuzz::answers;
using rvd::fuzz::on_phone;

extern "C" {

int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list values;
    va_start(values, request);
    void* record = va_arg(values, void*);
    va_end(values);
    if (answers == nullptr) return static_cast<int>(syscall(SYS_ioctl, fd, request, record));
    return rvd::fuzz::driver(request, record);
}

int open(const char* path, int flags, ...) {
    va_list values;
    va_start(values, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(values, mode_t) : 0;
    va_end(values);
    return openat(AT_FDCWD, on_phone(path).c_str(), flags, mode);
}

int stat(const char* path, struct stat* status) noexcept {
    return fstatat(AT_FDCWD, on_phone(path).c_str(), status, 0);
}

int lstat(const char* path, struct stat* status) noexcept {
    return fstatat(AT_FDCWD, on_phone(path).c_str(), status, AT_SYMLINK_NOFOLLOW);
}

int mkdir(const char* path, mode_t mode) noexcept {
    return mkdirat(AT_FDCWD, on_phone(path).c_str(), mode);
}

int unlink(const char* path) noexcept {
    return unlinkat(AT_FDCWD, on_phone(path).c_str(), 0);
}

int remove(const char* path) noexcept {
    return unlink(path) == 0 ? 0 : rmdir(on_phone(path).c_str());
}

int rename(const char* from, const char* to) noexcept {
    return renameat(AT_FDCWD, on_phone(from).c_str(), AT_FDCWD, on_phone(to).c_str());
}

DIR* opendir(const char* path) {
    return fdopendir(open(path, O_RDONLY | O_DIRECTORY));
}

int nftw(const char*, __nftw_func_t, int, int) {
    return 0;
}

unsigned sleep(unsigned seconds) {
    return answers == nullptr ? static_cast<unsigned>(usleep(seconds * 1'000'000)) : 0;
}

int usleep(useconds_t time) {
    const timespec pause = {time / 1'000'000, time % 1'000'000 * 1'000};
    return answers == nullptr ? nanosleep(&pause, nullptr) : 0;
}

// Lines are still formatted by the daemon, and go nowhere.
int __android_log_buf_print(int, int, const char*, const char*, ...) {
    return 1;
}

}  // extern "C"

#include "fuzz/support.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include <log/log.h>

#include "bootdump/BootDump.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/ProtocolVelo.h"
#include "tests/support/kernel.h"

// A device refuses an image of gigabytes with null, and so must the sanitizer.
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=256";
}

namespace rvd::fuzz {

namespace {

// An NV file is made as large as the table says.
constexpr rlim_t kLargestFile = 1 << 20;

unsigned granted;

Modem set_up(const char* type) {
    static ProtocolVelo protocol;
    Container::setProtocol(&protocol);
    std::string words[] = {"rvd", "-t", type};
    char* argv[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    require(Container::parseArgs(3, argv) == PARSE_OK, "a modem is set up");
    RvdArgs& args = *Container::getRvdArgs();
    strcpy(args.partition_path, "/efs/partition");
    strcpy(args.nv_data_path, "/efs/nv");
    return {args, Container::getBootDump(), Container::getSrinfo()};
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
void fill(Input* answers, void* record) {
    const Record answer = answers->take<Record>();
    memcpy(record, &answer, sizeof(answer));
}

void check_request(unsigned request, const void* record) {
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

// Most requests are granted, so that a run gets far.
int answer_request(Input* answers, unsigned request, void* record) {
    check_request(request, record);
    if (request == IOCTL_GET_LOG_DUMP) {
        static_cast<cp_log_dump*>(record)->size = answers->take<uint32_t>();
    } else if (request == IOCTL_GET_CP_CRASH_REASON) {
        fill<cp_crash_reason>(answers, record);
    } else if (request == IOCTL_GET_LNKM_VERSION) {
        fill<lnkm_version>(answers, record);
    } else if (request == IOCTL_GET_SRINFO) {
        fill<srinfo_buf>(answers, record);
    }
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
    test::reset_kernel();
    test::kernel().driver = [input](int, unsigned request, void* record) {
        return answer_request(input, request, record);
    };
}

Run::~Run() {
    // The fuzzer lives in the same process.
    test::kernel().real_time = true;
    test::kernel().driver = nullptr;
    for (const Modem* modem : {&tq720(), &vk880()}) {
        require(closed(modem->controller->getStdBoot()->fd), "the boot record is closed");
        require(closed(modem->controller->getStdDump()->fd), "the dump record is closed");
    }
    require(lowest_free() == lowest_free_, "no descriptor is left open");
}

bool Run::granted_last(unsigned request) {
    return granted == request;
}

void set_property(const char* name, std::string_view value) {
    test::set_property(name, std::string(value));
}

}  // namespace rvd::fuzz

extern "C" {

// Lines are still formatted by the daemon, and go nowhere.
int __android_log_buf_print(int, int, const char*, const char*, ...) {
    return 1;
}

int LLVMFuzzerInitialize(int*, char***) {
    rvd::test::enter_private_root();
    std::filesystem::create_directories("/data/vendor/log/rvd/err");
    for (const char* node : {"umts_boot0", "umts_ramdump0", "nr_boot0", "nr_ramdump0"})
        rvd::test::write_file(std::string("/dev/") + node, "");
    rvd::test::kernel().real_time = true;
    rvd::kmsg_fd = -1;
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {rvd::fuzz::kLargestFile, rvd::fuzz::kLargestFile};
    return setrlimit(RLIMIT_FSIZE, &limit);
}

}  // extern "C"

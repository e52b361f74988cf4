#include "check/driver.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <iterator>

#include "bootdump/BootDump.h"
#include "check/plan.h"
#include "log/Log.h"
#include "main/Container.h"
#include "util/ScopedFd.h"

// The daemon's requests come through here: the linker has them all call the first of these.
extern "C" int __wrap_ioctl(int fd, unsigned number, ...);
extern "C" int __real_ioctl(int fd, unsigned number, ...);

namespace rvd::check {

namespace {

constexpr int kEventPatience = 5000;  // ms

struct Request {
    const char* name;
    unsigned number;
    bool zero_alone;  // is success
};
constexpr Request kRequests[] = {
        {"POWER_ON", IOCTL_POWER_ON, false},
        {"POWER_OFF", IOCTL_POWER_OFF, true},
        {"POWER_RESET", IOCTL_POWER_RESET, false},
        {"START_CP_BOOTLOADER", IOCTL_START_CP_BOOTLOADER, false},
        {"COMPLETE_NORMAL_BOOTUP", IOCTL_COMPLETE_NORMAL_BOOTUP, false},
        {"GET_CP_STATUS", IOCTL_GET_CP_STATUS, false},
        {"LOAD_CP_IMAGE", IOCTL_LOAD_CP_IMAGE, true},
        {"GET_SRINFO", IOCTL_GET_SRINFO, false},
        {"SET_SRINFO", IOCTL_SET_SRINFO, false},
        {"NOTIFY_BOOT_FAIL", IOCTL_NOTIFY_BOOT_FAIL, false},
        {"NOTIFY_BOOT_DONE", IOCTL_NOTIFY_BOOT_DONE, false},
        {"GET_LOG_DUMP", IOCTL_GET_LOG_DUMP, false},
        {"CHECK_SECURITY", IOCTL_CHECK_SECURITY, true},
        {"GET_CP_CRASH_REASON", IOCTL_GET_CP_CRASH_REASON, false},
        {"GET_LNKM_VERSION", IOCTL_GET_LNKM_VERSION, false},
};

Report* reported;  // while the test runs
unsigned chunks;   // of images, since the last other request

bool shows(int fd, short event) {
    pollfd node = {fd, event, 0};
    return poll(&node, 1, 0) > 0 && (node.revents & (event | POLLHUP)) != 0;
}

// What is wrong with an answer, or "".
std::string difference(const Request& request, int result, const void* argument) {
    if (result < 0) return strerror(errno);
    if (request.zero_alone && result != 0) return "0 alone is success";
    switch (request.number) {
        case IOCTL_GET_SRINFO: {
            const uint32_t length = static_cast<const srinfo_buf*>(argument)->len;
            return length > kSrinfoDataSize
                           ? text("%u bytes in a record that holds %u", length, kSrinfoDataSize)
                           : "";
        }
        case IOCTL_GET_CP_CRASH_REASON: {
            const auto* reason = static_cast<const cp_crash_reason*>(argument);
            return memchr(reason->text, '\0', sizeof(reason->text)) == nullptr
                           ? "the text is not terminated"
                           : "";
        }
        case IOCTL_GET_LNKM_VERSION:
            return *static_cast<const char*>(argument) == '\0' ? "the version is empty" : "";
        default:
            return "";
    }
}

// What the request was about.
std::string detail(const Request& request, const void* argument) {
    if (request.number == IOCTL_GET_LOG_DUMP) {
        const auto* region = static_cast<const cp_log_dump*>(argument);
        return text(" %.31s, %u bytes", region->name, region->size);
    }
    if (request.number == IOCTL_POWER_RESET || request.number == IOCTL_START_CP_BOOTLOADER)
        return *static_cast<const uint32_t*>(argument) == CP_BOOT_MODE_DUMP ? " dump" : " normal";
    if (request.number == IOCTL_CHECK_SECURITY)
        return text(" mode %u", static_cast<const cp_security_req*>(argument)->mode);
    return "";
}

double seconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void report_chunks() {
    if (chunks > 0) reported->ok("LOAD_CP_IMAGE", text("0, %u times", chunks));
    chunks = 0;
}

// Before a request: what the one before has left.
void look_at_node(int fd, const Request& request) {
    if (request.number == IOCTL_GET_CP_STATUS || request.number == IOCTL_POWER_OFF) return;
    const bool region = request.number == IOCTL_GET_LOG_DUMP;
    if (region && shows(fd, POLLIN))
        reported->no("dump node", "has more to read than the region's size");
    if (!region && shows(fd, 0))
        reported->no("node", text("hangs up before %s, with no change of state", request.name));
}

int observe(int fd, const Request& request, void* argument) {
    const bool chunk = request.number == IOCTL_LOAD_CP_IMAGE;
    if (!chunk) report_chunks();
    look_at_node(fd, request);
    const double begin = seconds();
    const int result = __real_ioctl(fd, request.number, argument);
    const int error = errno;
    const double took = seconds() - begin;
    const std::string wrong = difference(request, result, argument);
    const std::string name = request.name + detail(request, argument);
    if (wrong.empty() && chunk)
        ++chunks;
    else
        reported->add(name.c_str(), wrong.empty(),
                      text("%d after %.3f s%s%s", result, took, wrong.empty() ? "" : ": ",
                           wrong.c_str()));
    errno = error;
    return result;
}

bool done(const char* what, int result, Capture& lines) {
    report_chunks();
    const std::vector<std::string> said = failures(lines.take());
    reported->add(what, result >= 0, result >= 0 ? "done" : joined(said));
    return result >= 0;
}

// A hang-up is how the driver tells of a new state, and of nothing else.
void check_event() {
    const char* path = Container::getRvdArgs()->boot_node;
    const ScopedFd node(open(path, O_RDWR | O_CLOEXEC));
    const int before = __real_ioctl(node.get(), IOCTL_GET_CP_STATUS, nullptr);
    pollfd event = {node.get(), 0, 0};
    if (poll(&event, 1, kEventPatience) == 0)
        return reported->ok("event", text("none within 5 s, state %d", before));
    const int state = __real_ioctl(node.get(), IOCTL_GET_CP_STATUS, nullptr);
    const bool told = (event.revents & POLLHUP) != 0 && state != before;
    reported->add("event", told,
                  told ? text("a hang-up, state %d after %d", state, before)
                       : text("poll returns 0x%X with state %d as before; a hang-up, 0x%X, means "
                              "another state",
                              static_cast<unsigned>(event.revents), state, POLLHUP));
}

}  // namespace

const char kDriverTest[] =
        "This boots the modem, waits 5 s for an event, dumps the modem and powers it off, with "
        "the\n"
        "daemon's own requests in the daemon's own order. It writes what a boot and a dump write: "
        "NV\n"
        "file where there is none, silent-reset records, crash files under /data/vendor/log/rvd. "
        "It\n"
        "asks for no kernel panic. The daemon must not run meanwhile, and calls are cut off.\n";

void check_driver_contract(Report& report, Capture& lines) {
    BootDump& modem = *Container::getBootDump();
    reported = &report;
    int saved_level = 0;
    debug_level.compare_exchange_strong(saved_level, 1);  // or a dump has no directory
    lines.take();
    if (done("boot", modem.boot(), lines)) {
        check_event();
        done("dump", modem.dump(), lines);
    }
    done("power-off", modem.shutdown(), lines);
    reported = nullptr;
}

}  // namespace rvd::check

int __wrap_ioctl(int fd, unsigned number, ...) {
    using namespace rvd::check;
    va_list values;
    va_start(values, number);
    void* const argument = va_arg(values, void*);
    va_end(values);
    if (reported == nullptr || (number >> 8 & 0xFF) != rvd::kLnkmType)
        return __real_ioctl(fd, number, argument);
    const auto* known = std::find_if(std::begin(kRequests), std::end(kRequests),
                                     [&](const Request& r) { return r.number == number; });
    if (known != std::end(kRequests)) return observe(fd, *known, argument);
    reported->ok("TRIGGER_KERNEL_PANIC", "not asked for");
    return 0;
}

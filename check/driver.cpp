#include "check/driver.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <string.h>
#include <time.h>

#include "bootdump/BootDump.h"
#include "check/contract.h"
#include "check/plan.h"
#include "log/Log.h"
#include "main/Container.h"
#include "util/ScopedFd.h"

// The linker (--wrap) redirects every call of ioctl() in this program to the first; the second is
// the C library's.
extern "C" int __wrap_ioctl(int fd, unsigned number, ...);
extern "C" int __real_ioctl(int fd, unsigned number, ...);

namespace rvd::check {

namespace {

constexpr int kEventTimeout = 5000;  // ms

Report* reported;  // while the test runs, else null
unsigned chunks;   // of images, loaded since the last other request; they share a line

double seconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void report_chunks() {
    if (chunks > 0) reported->ok("LOAD_CP_IMAGE", text("0, %u times", chunks));
    chunks = 0;
}

void check_node(int fd, const Request& request) {
    pollfd node = {fd, POLLIN, 0};
    poll(&node, 1, 0);
    const std::string wrong = wrong_events(node.revents, request);
    if (!wrong.empty()) reported->no("node", wrong);
}

int observe(int fd, const Request& request, void* argument) {
    const bool chunk = request.number == IOCTL_LOAD_CP_IMAGE;
    if (!chunk) report_chunks();
    check_node(fd, request);
    const double begin = seconds();
    const int result = __real_ioctl(fd, request.number, argument);
    const int error = errno;
    const double took = seconds() - begin;
    const std::string wrong = wrong_answer(request, result, argument);
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

void check_event() {
    const char* path = Container::getRvdArgs()->boot_node;
    const ScopedFd node(open(path, O_RDWR | O_CLOEXEC));
    const int before = __real_ioctl(node.get(), IOCTL_GET_CP_STATUS, nullptr);
    pollfd event = {node.get(), 0, 0};
    if (poll(&event, 1, kEventTimeout) == 0)
        return reported->ok("event", text("none within 5 s, state %d", before));
    const int state = __real_ioctl(node.get(), IOCTL_GET_CP_STATUS, nullptr);
    reported->add("event", is_event(event.revents, before, state),
                  text("poll returns 0x%X, state %d after %d; a hang-up, 0x%X, and another state "
                       "are an event",
                       static_cast<unsigned>(event.revents), state, before, POLLHUP));
}

}  // namespace

const char kDriverTest[] =
        "This boots the modem, waits 5 s for an event, dumps the modem and powers it off, with\n"
        "the daemon's own requests in the daemon's own order. It writes what a boot and a dump\n"
        "write: the NV file if it is missing, silent-reset records, and crash files under\n"
        "/data/vendor/log/rvd. It does not panic the kernel. Calls are cut off, and the daemon\n"
        "must not be running.\n";

void check_driver_contract(Report& report, Capture& lines) {
    BootDump& modem = *Container::getBootDump();
    reported = &report;
    int saved_level = 0;
    debug_level.compare_exchange_strong(saved_level, 1);  // at 0 a dump creates no directory
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
    if (const Request* known = find_request(number)) return observe(fd, *known, argument);
    reported->ok("TRIGGER_KERNEL_PANIC", "not sent");
    return 0;
}

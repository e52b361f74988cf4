#include "check/contract.h"

#include <errno.h>
#include <poll.h>
#include <string.h>

#include <algorithm>
#include <iterator>

#include "bootdump/lnkm.h"
#include "check/report.h"

namespace rvd::check {

namespace {

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

}  // namespace

const Request* find_request(unsigned number) {
    const auto* known = std::find_if(std::begin(kRequests), std::end(kRequests),
                                     [&](const Request& r) { return r.number == number; });
    return known == std::end(kRequests) ? nullptr : known;
}

std::string detail(const Request& request, const void* argument) {
    switch (request.number) {
        case IOCTL_GET_LOG_DUMP: {
            const auto* region = static_cast<const cp_log_dump*>(argument);
            return text(" %.31s, %u bytes", region->name, region->size);
        }
        case IOCTL_POWER_RESET:
        case IOCTL_START_CP_BOOTLOADER: {
            const bool dump = *static_cast<const uint32_t*>(argument) == CP_BOOT_MODE_DUMP;
            return dump ? " dump" : " normal";
        }
        case IOCTL_CHECK_SECURITY:
            return text(" mode %u", static_cast<const cp_security_req*>(argument)->mode);
        default:
            return "";
    }
}

std::string wrong_answer(const Request& request, int result, const void* argument) {
    if (result < 0) return strerror(errno);
    if (request.only_zero_succeeds && result != 0) return "only 0 is success";
    switch (request.number) {
        case IOCTL_GET_SRINFO: {
            const uint32_t length = static_cast<const srinfo_buf*>(argument)->len;
            return length <= kSrinfoDataSize
                           ? ""
                           : text("%u bytes in a record that holds %u", length, kSrinfoDataSize);
        }
        case IOCTL_GET_CP_CRASH_REASON: {
            const auto* reason = static_cast<const cp_crash_reason*>(argument);
            const bool ends = memchr(reason->text, '\0', sizeof(reason->text)) != nullptr;
            return ends ? "" : "the text is not terminated";
        }
        case IOCTL_GET_LNKM_VERSION:
            return *static_cast<const char*>(argument) != '\0' ? "" : "the version is empty";
        default:
            return "";
    }
}

std::string wrong_events(short revents, const Request& request) {
    const bool may_hang_up =
            request.number == IOCTL_GET_CP_STATUS || request.number == IOCTL_POWER_OFF;
    if ((revents & POLLHUP) != 0 && !may_hang_up)
        return text("hangs up before %s, which ends a boot or a dump", request.name);
    if ((revents & POLLIN) != 0 && request.number == IOCTL_GET_LOG_DUMP)
        return "has more to read than the region's size";
    return "";
}

bool is_event(short revents, int state_before, int state_after) {
    return (revents & POLLHUP) != 0 && state_after != state_before;
}

}  // namespace rvd::check

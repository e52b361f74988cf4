// Changes from root to the radio user. Calls capset directly: not every C library declares it.
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "util/Util.h"

namespace rvd {

namespace {

constexpr uid_t kRadioUser = 1001;

constexpr int kKept[] = {
        CAP_NET_ADMIN, CAP_NET_RAW, CAP_SYS_ADMIN, CAP_SYS_BOOT, CAP_SYSLOG, CAP_BLOCK_SUSPEND,
};

}  // namespace

void Util::switch_user() {
    prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0);
    // If this fails, the daemon continues as root.
    const int changed = setuid(kRadioUser);
    static_cast<void>(changed);

    __user_cap_header_struct header = {};
    header.version = _LINUX_CAPABILITY_VERSION_2;
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_2] = {};
    for (const int capability : kKept) {
        data[CAP_TO_INDEX(capability)].effective |= CAP_TO_MASK(capability);
        data[CAP_TO_INDEX(capability)].permitted |= CAP_TO_MASK(capability);
    }
    syscall(SYS_capset, &header, data);
}

}  // namespace rvd

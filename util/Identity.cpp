// From root to the radio user. Capabilities are set with the kernel's own structures: not every C
// library declares the call.
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
    // Without the user change the daemon goes on as root.
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

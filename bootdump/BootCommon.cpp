// The boot half of the base controller: link checks and NV validation, driver requests, and the
// operations that open the boot node for themselves.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "bootdump/BootDump.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/Protocol.h"
#include "util/Io.h"
#include "util/Property.h"
#include "util/ScopedFd.h"
#include "util/Text.h"

namespace rvd {

namespace {

constexpr mode_t kSimCountMode = 0664;
constexpr int kMinSims = 1;
constexpr int kMaxSims = 4;

constexpr char kNvValidated[] = "vendor.rvd.rfs_check_done";
constexpr int kNvPauses = 50;
constexpr useconds_t kNvPause = 100 * 1000;  // us

bool nv_validated() {
    return Property(kNvValidated, "0").is_set();
}

bool boot_link_supported(int link) {
    switch (link) {
        case LINK_SPI:
            Log::info("boot", "BOOT link SPI\n");
            return true;
        case LINK_SHMEM:
            Log::info("boot", "BOOT link SHMEM\n");
            return true;
        default:
            Log::info("boot", "ERR! BOOT link# %d not supported\n", link);
            return false;
    }
}

bool main_link_supported(int link, bool has_pcie) {
    if (link == LINK_C2C) {
        Log::info("boot", "MAIN link C2C\n");
    } else if (link == LINK_SHMEM) {
        Log::info("boot", "MAIN link SHMEM\n");
    } else if (link == LINK_LLI) {
        Log::info("boot", "MAIN link MIPI-LLI\n");
    } else if (link == LINK_PCIE && has_pcie) {
        Log::info("boot", "MAIN link PCIE\n");
    } else {
        Log::info("boot", "ERR! MAIN link# %d not supported\n", link);
        return false;
    }
    return true;
}

// Opens the boot node for one request; `*result` is 0 or -errno. O_NONBLOCK: it must open even
// while a boot or dump has it open.
ScopedFd open_for_request(const char* tag, int* result) {
    const char* path = Container::getRvdArgs()->boot_node;
    ScopedFd node(open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    *result = 0;
    if (!node.valid()) {
        *result = -errno;
        Log::error(tag, "%s open fail\n", path);
    }
    return node;
}

}  // namespace

int BootDump::failed(const char* tag, const char* text, int result) {
    Log::info(tag, "%s", text);
    return result;
}

void BootDump::log_boot_files() {
    const RvdArgs* args = Container::getRvdArgs();
    Log::info("boot", "CP boot device = %s\n", args->boot_node);
    Log::info("boot", "CP binary file = %s\n", args->partition_path);
    Log::info("boot", "CP NV data file = %s\n", args->nv_data_path);
}

int BootDump::check_links(bool has_pcie) {
    const RvdArgs* args = Container::getRvdArgs();
    return boot_link_supported(args->boot_link) && main_link_supported(args->main_link, has_pcie)
                   ? 0
                   : -ENODEV;
}

void BootDump::wait_nv_validation(bool check_after_last_pause) {
    bool done = nv_validated();
    for (int pauses = 1; !done && pauses <= kNvPauses; ++pauses) {
        usleep(kNvPause);
        if (pauses < kNvPauses || check_after_last_pause) done = nv_validated();
    }
    Log::info("boot", "NV validation %s\n", done ? "done" : "TIMEOUT");
}

int BootDump::std_boot_power_on() {
    const int result = ioctl(getStdBoot()->fd[BOOT_FD_NODE], IOCTL_POWER_ON, nullptr);
    if (result < 0) {
        Log::error("std_boot_power_on", "ERR! IOCTL_POWER_ON fail (%d)\n", result);
        return result;
    }
    return 0;
}

int BootDump::std_boot_power_reset(cp_boot_mode mode) {
    const int result = ioctl(getStdBoot()->fd[BOOT_FD_NODE], IOCTL_POWER_RESET, &mode);
    if (result < 0) {
        Log::error("std_boot_power_reset", "ERR! IOCTL_POWER_RESET fail\n");
        return result;
    }
    return 0;
}

int BootDump::std_boot_start_cp_bootloader(cp_boot_mode mode) {
    const int result = ioctl(getStdBoot()->fd[BOOT_FD_NODE], IOCTL_START_CP_BOOTLOADER, &mode);
    if (result < 0) {
        Log::error("std_boot_start_cp_bootloader", "ERR! IOCTL_START_CP_BOOTLOADER fail\n");
        return result;
    }
    return 0;
}

int BootDump::std_boot_complete_normal_bootup() {
    const int node = getStdBoot()->fd[BOOT_FD_NODE];
    const int result = ioctl(node, IOCTL_COMPLETE_NORMAL_BOOTUP, nullptr);
    if (result < 0) {
        Log::error("std_boot_complete_normal_bootup",
                   "ERR! IOCTL_COMPLETE_NORMAL_BOOTUP fail (%d)\n", result);
        ioctl(node, IOCTL_NOTIFY_BOOT_FAIL, nullptr);
        return result;
    }
    ioctl(node, IOCTL_NOTIFY_BOOT_DONE, nullptr);
    return 0;
}

int BootDump::get_modem_state() {
    const int state = ioctl(getStdBoot()->fd[BOOT_FD_NODE], IOCTL_GET_CP_STATUS, nullptr);
    Log::info("get_modem_state", "modem_status: %d\n", state);
    return state;
}

int BootDump::shutdown() {
    int result = 0;
    const ScopedFd node = open_for_request("shutdown", &result);
    if (node.valid()) ioctl(node.get(), IOCTL_POWER_OFF, nullptr);
    return result;
}

int BootDump::upload() {
    int result = 0;
    const ScopedFd node = open_for_request("upload", &result);
    if (!node.valid()) return result;
    Log::info("upload", "Go to UPLOAD mode\n");
    result = ioctl(node.get(), IOCTL_TRIGGER_KERNEL_PANIC, Container::getRvdArgs()->crash_reason);
    if (result < 0) {
        Log::error("upload", "ERR! IOCTL_TRIGGER_KERNEL_PANIC fail (%d)\n", result);
        return result;
    }
    return 0;
}

int BootDump::set_kernel_panic(const char* reason) {
    Log::info("set_kernel_panic", "forced upload\n");
    format_text(Container::getRvdArgs()->crash_reason, "%s", reason);
    return upload();
}

void BootDump::set_sim_configuration() {
    const int count = Container::getProtocol()->get_factory_prop();
    Log::info("set_sim_configuration", "sim count: %d (echo to ds_detect file)\n", count);
    if (count < kMinSims || count > kMaxSims) return;
    const ScopedFd file(
            open(kSimCountPath, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kSimCountMode));
    if (!file.valid()) {
        Log::error("set_sim_configuration", "SIM conf: open failed\n");
        return;
    }
    char text[16];
    format_text(text, "%d", count);
    if (write_all(file.get(), text, strlen(text)) < 0) {
        Log::error("set_sim_configuration", "SIM conf: write failed\n");
        return;
    }
    if (fsync(file.get()) < 0) Log::error("set_sim_configuration", "SIM conf: fsync failed\n");
}

int BootDump::std_reboot_system(const char* reason) {
    return Container::getProtocol()->std_reboot_system(reason);
}

bool BootDump::check_vtc_sales_code() {
    return Container::getProtocol()->check_vtc_sales_code();
}

}  // namespace rvd

// The boot half of what both controllers share: the record, the power requests, and the operations
// that work on a boot node of their own.
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
#include "util/ScopedFd.h"
#include "util/Text.h"

namespace rvd {

namespace {

constexpr mode_t kSimCountMode = 0664;
constexpr int kMinSims = 1;
constexpr int kMaxSims = 4;

// A boot node for one request. It must open while another boot or dump holds the modem.
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

void BootDump::std_boot_init_args() {
    std_boot_args* boot = getStdBoot();
    *boot = {};
    for (int32_t& fd : boot->fd)
        fd = -1;
}

bool BootDump::std_boot_prepare_args(unsigned int max_stage) {
    std_boot_init_args();
    const char* path = Container::getRvdArgs()->boot_node;
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        Log::error("std_boot_prepare_args", "ERR! DEV(%s) open fail\n", path);
        return false;
    }
    Log::info("std_boot_prepare_args", "DEV(%s) opened (fd %d)\n", path, fd);
    getStdBoot()->fd[BOOT_FD_NODE] = fd;
    getStdBoot()->max_stage = static_cast<int32_t>(max_stage);
    return true;
}

void BootDump::std_boot_close_args() {
    for (const int32_t fd : getStdBoot()->fd) {
        if (fd >= 0) close(fd);
    }
    std_boot_init_args();
}

int BootDump::std_boot_power_on() {
    const int result = ioctl(getStdBoot()->fd[BOOT_FD_NODE], IOCTL_POWER_ON, 0);
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
    const int result = ioctl(node, IOCTL_COMPLETE_NORMAL_BOOTUP, 0);
    if (result < 0) {
        Log::error("std_boot_complete_normal_bootup",
                   "ERR! IOCTL_COMPLETE_NORMAL_BOOTUP fail (%d)\n", result);
        ioctl(node, IOCTL_NOTIFY_BOOT_FAIL, 0);
        return result;
    }
    ioctl(node, IOCTL_NOTIFY_BOOT_DONE, 0);
    return 0;
}

int BootDump::get_modem_state() {
    const int state = ioctl(getStdBoot()->fd[BOOT_FD_NODE], IOCTL_GET_CP_STATUS, 0);
    Log::info("get_modem_state", "modem_status: %d\n", state);
    return state;
}

int BootDump::shutdown() {
    int result = 0;
    const ScopedFd node = open_for_request("shutdown", &result);
    if (node.valid()) ioctl(node.get(), IOCTL_POWER_OFF, 0);
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

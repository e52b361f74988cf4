// The integrated modem's boot sequence and security requests.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "bootdump/BootDumpModap.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/Protocol.h"
#include "srinfo/Srinfo.h"
#include "util/ScopedFd.h"

namespace rvd {

namespace {

constexpr char kTag[] = "boot";
constexpr char kWakeLock[] = "tq720";
constexpr mode_t kWakeLockMode = 0664;

bool is_invalid_image(int result) {
    const auto* end = std::end(kInvalidImageCodes);
    return std::find(std::begin(kInvalidImageCodes), end, static_cast<uint32_t>(result)) != end;
}

}  // namespace

BootDumpModap::BootDumpModap() {
    std_boot_init_args();
    std_dump_init_args();
}

int BootDumpModap::boot() {
    log_boot_files();
    int result = check_links(/*has_pcie=*/false);
    if (result == 0) {
        wait_nv_validation(/*check_after_last_pause=*/false);
        boot_wake_lock(1);
        result = boot_steps();
    }
    std_boot_close_args();
    boot_wake_lock(0);
    return result;
}

int BootDumpModap::boot_steps() {
    Log::info(kTag, "Prepare arguments\n");
    if (!prepare_boot_args(CP_BOOT_MODE_NORMAL)) {
        return failed(kTag, "ERR! prepare_boot_args fail\n", -EFAULT);
    }
    const int node = boot_args_.fd[BOOT_FD_NODE];
    Srinfo* srinfo = Container::getSrinfo();
    if (srinfo != nullptr) srinfo->store_srinfo(node);

    int result = 0;
    if (get_modem_state() != MODEM_STATE_OFF) {
        Log::info(kTag, "Power reset CP_BOOT_MODE_NORMAL\n");
        result = std_boot_power_reset(CP_BOOT_MODE_NORMAL);
        if (result < 0) return failed(kTag, "ERR! std_boot_power_reset fail\n", result);
    }

    Log::info(kTag, "Power on CP\n");
    result = std_boot_power_on();
    if (result < 0) return failed(kTag, "ERR! std_boot_power_on fail\n", result);

    Log::info(kTag, "Request security : non-secure mode\n");
    result = std_security_req(SECURITY_NON_SECURE, 0, 0);
    if (result < 0) return failed(kTag, "ERR! security check fail\n", result);

    Log::info(kTag, "Send CP image\n");
    const int loaded_before = load_cp_images(CP_BOOT_MODE_NORMAL);
    if (loaded_before < 0) return failed(kTag, "ERR! BOOT_STAGE fail\n", loaded_before);

    result = request_secure_mode(loaded_before);
    if (result < 0) return result;

    set_sim_configuration();

    Log::info(kTag, "Start CP bootloader\n");
    result = std_boot_start_cp_bootloader(CP_BOOT_MODE_NORMAL);
    if (result < 0) return failed(kTag, "ERR! std_boot_start_cp_bootloader fail\n", result);

    Log::info(kTag, "Handshake\n");
    result = Container::getProtocol()->std_boot_finish_handshake();
    if (result < 0) return failed(kTag, "ERR! std_boot_finish_handshake fail\n", result);

    Log::info(kTag, "Complete normal bootup\n");
    result = std_boot_complete_normal_bootup();
    if (result < 0) return failed(kTag, "ERR! std_boot_complete_normal_bootup fail\n", result);

    if (srinfo != nullptr) srinfo->restore_srinfo(node);
    return 0;
}

int BootDumpModap::request_secure_mode(int loaded_before) {
    const std_dload_control* stages = boot_args_.dload;

    Log::info(kTag, "Request Security : secure mode\n");
    int result = std_security_req(SECURITY_TOC, stages[STAGE_TOC].m_off, stages[STAGE_TOC].size);
    if (result < 0) return failed(kTag, "ERR! security check fail for TOC\n", result);

    result = request_vss_check(loaded_before);
    if (result < 0) return failed(kTag, "ERR! security check fail for VSS\n", result);

    Log::info(kTag, "Request security : secure mode\n");
    result = std_security_req(SECURITY_SECURE, stages[STAGE_BOOT].size, stages[STAGE_MAIN].size);
    if (result < 0) return failed(kTag, "ERR! security check fail for BOOT/MAIN\n", result);
    return 0;
}

int BootDumpModap::request_vss_check(int loaded_before) {
    const std_dload_control& vss = boot_args_.dload[STAGE_VSS];
    if (Container::getRvdArgs()->options & OPT_VERIFY_VSS) {
        Log::info(kTag, "Request Security : VSS secure mode\n");
        return std_security_req(SECURITY_VSS, vss.m_off, vss.size);
    }
    if (!boot_args_.has_vss) return 0;
    if (loaded_before == 0) return std_security_req(SECURITY_TOC, vss.m_off, vss.size);
    Log::info(kTag, "skip VSS check\n");
    return 0;
}

int BootDumpModap::std_security_req(unsigned int mode, unsigned int param1, unsigned int param2) {
    cp_security_req request = {mode, param1, param2, 0};
    Log::info("std_security_req", "security_req: %x:%x:%x:%x\n", request.mode, request.param1,
              request.param2, request.param3);
    const int result = ioctl(boot_args_.fd[BOOT_FD_NODE], IOCTL_CHECK_SECURITY, &request);
    if (result == 0) return 0;
    Log::error("std_security_req", "ERR! IOCTL_CHECK_SECURITY fail (%d)\n", result);
    if (is_invalid_image(result) && check_vtc_sales_code()) {
        Log::info("std_security_req", "secure err: Invalid Main image\n");
        std_reboot_system("secure");
        return result;
    }
    return mode == SECURITY_NON_SECURE ? result : -1;
}

void BootDumpModap::boot_wake_lock(int lock) {
    const char* path = lock ? kWakeLockPath : kWakeUnlockPath;
    const ScopedFd file(open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kWakeLockMode));
    if (!file.valid()) {
        Log::error("boot_wake_lock", "user wake_%s open fail\n", lock ? "lock" : "unlock");
        return;
    }
    if (write(file.get(), kWakeLock, strlen(kWakeLock)) < 0) {
        Log::error("boot_wake_lock", "write fail - %s\n", kWakeLock);
        return;
    }
    Log::info("boot_wake_lock", "%s/%s\n", path, kWakeLock);
}

}  // namespace rvd

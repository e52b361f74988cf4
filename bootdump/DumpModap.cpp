// The integrated modem's dump: memory regions through the driver, then the upload from its boot
// loader.
#include <errno.h>
#include <unistd.h>

#include "bootdump/BootDumpModap.h"
#include "log/Log.h"
#include "main/Container.h"
#include "srinfo/Srinfo.h"

namespace rvd {

namespace {

constexpr char kTag[] = "dump";

}  // namespace

int BootDumpModap::dump() {
    const char* modem = Container::getRvdArgs()->node_prefix;
    boot_wake_lock(1);
    Log::save_now("cpcrash_%s_klog_before", modem);
    const int result = dump_steps();
    if (result < 0) Log::save_now("cpcrash_%s_dump_fail", modem);
    std_dump_close_args();
    std_boot_close_args();
    boot_wake_lock(0);
    return result;
}

int BootDumpModap::dump_steps() {
    Log::info(kTag, "Prepare CP crash dump\n");
    if (!std_dump_prepare_args()) return failed(kTag, "ERR! std_dump_prepare_args fail\n", -EFAULT);
    if (!prepare_boot_args(CP_BOOT_MODE_DUMP)) {
        return failed(kTag, "ERR! prepare_boot_args fail\n", -EFAULT);
    }
    if (Srinfo* srinfo = Container::getSrinfo()) srinfo->store_srinfo(boot_args_.fd[BOOT_FD_NODE]);

    collect_regions();

    int result = boot_dump_loader();
    if (result < 0) return result;

    Log::info(kTag, "Receive CP crash dump\n");
    result = std_dump_receive_cp_dump();
    if (result < 0) return dump_failed(kTag, "ERR! std_dump_receive_cp_dump fail\n", result);

    Log::save_now("cpcrash_%s_klog_after", Container::getRvdArgs()->node_prefix);
    sync();

    Log::info(kTag, "Trigger kernel panic\n");
    result = std_dump_trigger_kernel_panic();
    if (result < 0) return dump_failed(kTag, "ERR! std_dump_trigger_kernel_panic fail\n", result);
    return 0;
}

void BootDumpModap::collect_regions() {
    Log::info(kTag, "Get log dump\n");
    get_log_dump("shmem", CP_LOG_DUMP_SHMEM);
    if (Container::getRvdArgs()->options & OPT_VERIFY_VSS) {
        Log::info(kTag, "BOPT_VERIFY_VSS is enabled. VSS region is not accessible by rvd\n");
    } else {
        get_log_dump("vss", CP_LOG_DUMP_VSS);
    }
    get_log_dump("databuf", CP_LOG_DUMP_DATABUF);
    get_log_dump("l2b", CP_LOG_DUMP_L2B);
    get_log_dump("hxlg", CP_LOG_DUMP_HXLG);
    get_log_dump("cp_btl", CP_LOG_DUMP_CP_BTL);
}

int BootDumpModap::boot_dump_loader() {
    Log::info(kTag, "Power reset CP_BOOT_MODE_DUMP\n");
    int result = std_boot_power_reset(CP_BOOT_MODE_DUMP);
    if (result < 0) return failed(kTag, "ERR! std_boot_power_reset fail\n", result);

    Log::info(kTag, "Load CP bootloader\n");
    result = load_cp_images(CP_BOOT_MODE_DUMP);
    if (result < 0) return failed(kTag, "ERR! load_cp_images fail\n", result);

    Log::info(kTag, "Request security : dump mode\n");
    // A dump does not load MAIN: its size is 0.
    result = std_security_req(SECURITY_DUMP, boot_args_.dload[STAGE_BOOT].size,
                              boot_args_.dload[STAGE_MAIN].size);
    if (result < 0) return failed(kTag, "ERR! security check fail\n", result);

    Log::info(kTag, "Start CP bootloader for crash dump\n");
    result = std_boot_start_cp_bootloader(CP_BOOT_MODE_DUMP);
    if (result < 0) return failed(kTag, "ERR! std_boot_start_cp_bootloader fail\n", result);
    return 0;
}

}  // namespace rvd

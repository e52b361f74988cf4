// The external modem's dump: two memory regions through the driver, then the upload from its boot
// loader.
#include <errno.h>
#include <unistd.h>

#include "bootdump/BootDumpExt.h"
#include "log/Log.h"
#include "main/Container.h"
#include "srinfo/Srinfo.h"

namespace rvd {

int BootDumpExt::dump() {
    const int result = dump_steps();
    if (result < 0) Log::save_now("cpcrash_%s_dump_fail", Container::getRvdArgs()->node_prefix);
    std_dump_close_args();
    std_boot_close_args();
    return result;
}

int BootDumpExt::dump_steps() {
    constexpr char kTag[] = "dump";
    Log::info(kTag, "Prepare CP crash dump\n");
    if (!std_dump_prepare_args()) return failed(kTag, "ERR! std_dump_prepare_args fail\n", -EFAULT);
    if (!prepare_boot_args(CP_BOOT_MODE_DUMP)) {
        return failed(kTag, "ERR! prepare_boot_args fail\n", -EFAULT);
    }

    Log::info(kTag, "Get log dump\n");
    get_log_dump("shmem", CP_LOG_DUMP_SHMEM);
    get_log_dump("databuf", CP_LOG_DUMP_DATABUF);

    Log::info(kTag, "Prepare CP crash dump\n");
    int result = ostra_dump_boot();
    if (result < 0) return dump_failed(kTag, "ERR! ostra_dump_boot fail\n", result);

    Log::info(kTag, "Receive CP crash dump\n");
    result = std_dump_receive_cp_dump();
    if (result < 0) return dump_failed(kTag, "ERR! std_dump_receive_cp_dump fail\n", result);

    Log::info(kTag, "Save kernel log\n");
    Log::save_now("dmesg");
    if (Srinfo* srinfo = Container::getSrinfo()) srinfo->store_srinfo(boot_args_.fd[BOOT_FD_NODE]);
    sync();

    Log::info(kTag, "Trigger kernel panic\n");
    result = std_dump_trigger_kernel_panic();
    if (result < 0) return dump_failed(kTag, "ERR! std_dump_trigger_kernel_panic fail\n", result);
    return result;
}

int BootDumpExt::ostra_dump_boot() {
    constexpr char kTag[] = "ostra_dump_boot";
    const unsigned boot_stage = static_cast<unsigned>(Container::getRvdArgs()->boot_stage);

    Log::info(kTag, "Power reset CP for CP_BOOT_MODE_DUMP\n");
    int result = std_boot_power_reset(CP_BOOT_MODE_DUMP);
    if (result < 0) return failed(kTag, "ERR! std_boot_power_reset fail\n", result);

    Log::info(kTag, "Load CP bootloader\n");
    result = std_boot_load_cp_bootloader(boot_stage);
    if (result < 0) return failed(kTag, "ERR! std_boot_load_cp_bootloader fail\n", result);

    Log::info(kTag, "Start CP bootloader for crash dump\n");
    result = std_boot_start_cp_bootloader(CP_BOOT_MODE_DUMP);
    if (result < 0) return failed(kTag, "ERR! std_boot_start_cp_bootloader fail\n", result);
    return result;
}

}  // namespace rvd

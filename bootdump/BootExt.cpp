// The external modem's boot sequence.
#include <errno.h>

#include "bootdump/BootDumpExt.h"
#include "log/Log.h"
#include "main/Container.h"
#include "srinfo/Srinfo.h"

namespace rvd {

BootDumpExt::BootDumpExt() {
    std_boot_init_args();
    std_dump_init_args();
}

int BootDumpExt::boot() {
    log_boot_files();
    int result = check_links(/*has_pcie=*/true);
    if (result == 0) {
        wait_nv_validation(/*check_after_last_pause=*/true);
        if (prepare_boot_args(CP_BOOT_MODE_NORMAL)) {
            result = ostra_normal_boot();
            if (result < 0) Log::info("boot", "ERR! ostra_normal_boot fail\n");
        } else {
            result = failed("boot", "ERR! prepare_boot_args fail\n", -EFAULT);
        }
    }
    std_boot_close_args();
    return result;
}

int BootDumpExt::ostra_normal_boot() {
    constexpr char kTag[] = "ostra_normal_boot";
    const unsigned boot_stage = static_cast<unsigned>(Container::getRvdArgs()->boot_stage);

    Log::info(kTag, "Power on CP\n");
    int result = std_boot_power_on();
    if (result < 0) return failed(kTag, "ERR! std_boot_power_on fail\n", result);

    Log::info(kTag, "Load CP bootloader\n");
    result = std_boot_load_cp_bootloader(boot_stage);
    if (result < 0) return failed(kTag, "ERR! std_boot_load_cp_image fail\n", result);

    Log::info(kTag, "Start CP bootloader\n");
    result = std_boot_start_cp_bootloader(CP_BOOT_MODE_NORMAL);
    if (result < 0) return failed(kTag, "ERR! std_boot_start_cp_bootloader fail\n", result);

    Log::info(kTag, "Load CP images\n");
    result = std_boot_load_cp_images();
    if (result < 0) return failed(kTag, "ERR! std_boot_dload fail\n", result);

    if (Srinfo* srinfo = Container::getSrinfo())
        srinfo->restore_srinfo(boot_args_.fd[BOOT_FD_NODE]);

    Log::info(kTag, "Complete normal bootup\n");
    result = std_boot_complete_normal_bootup();
    if (result < 0) return failed(kTag, "ERR! std_boot_complete_normal_bootup fail\n", result);
    return result;
}

}  // namespace rvd

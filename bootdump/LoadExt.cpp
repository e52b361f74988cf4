// Loads the external modem: its boot loader in one request to the driver, then the rows of the plan
// over the link.
#include <errno.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "bootdump/BootDumpExt.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/Protocol.h"
#include "util/Heap.h"

namespace rvd {

int BootDumpExt::std_boot_load_cp_bootloader(unsigned int stage) {
    constexpr char kTag[] = "std_boot_load_cp_bootloader";
    const std_dload_control& row = boot_args_.dload[stage];
    const int size = static_cast<int>(row.size);
    Log::info(kTag, "size = %d\n", size);
    const HeapPtr<char> buffer = heap_bytes(row.size);
    if (!buffer) {
        Log::info(kTag, "ERR! malloc(%d) fail\n", size);
        return -ENOMEM;
    }
    if (lseek(row.fd, static_cast<off_t>(row.b_off), SEEK_SET) < 0) {
        Log::error(kTag, "ERR! lseek fail\n");
        return -1;
    }
    const ssize_t count = read(row.fd, buffer.get(), row.size);
    if (count < 0) {
        Log::error(kTag, "ERR! read fail\n");
        return -1;
    }
    if (static_cast<size_t>(count) != row.size) {
        Log::info(kTag, "ERR! read %d != img.size %d\n", static_cast<int>(count), size);
        return -EFAULT;
    }
    cp_image image = {};
    image.image_addr = reinterpret_cast<uintptr_t>(buffer.get());
    image.size = row.size;
    const int result = ioctl(boot_args_.fd[BOOT_FD_NODE], IOCTL_LOAD_CP_IMAGE, &image);
    if (result != 0) {
        Log::error(kTag, "ERR! IOCTL_LOAD_CP_IMAGE fail (%d)\n", result);
        // A positive result is a failure too, and callers test for a negative one.
        return result < 0 ? result : -EIO;
    }
    Log::info(kTag, "xmit bootloader complete!\n");
    return 0;
}

int BootDumpExt::std_boot_load_cp_images() {
    const RvdArgs* args = Container::getRvdArgs();
    // Booted over SPI with PCIe as main link, the boot loader expects no DONE for its own image.
    const bool skip_boot_row = args->boot_link == LINK_SPI && args->main_link == LINK_PCIE;
    const int first = skip_boot_row ? args->first_stage : args->boot_stage;
    for (int row = first; row < boot_args_.max_stage; ++row) {
        const int result = load_row(boot_args_.dload[row]);
        if (result < 0) return result;
    }
    return finish_row_exceeds_plan() ? load_row(finish_row()) : 0;
}

int BootDumpExt::load_row(const std_dload_control& row) {
    constexpr char kTag[] = "std_boot_load_cp_images";
    Protocol* protocol = Container::getProtocol();
    const int stage = static_cast<int>(row.stage);
    if (row.stage_start) {
        const int result = protocol->std_udl_stage_start(DOWNLOAD, row.stage);
        if (result < 0) {
            Log::info(kTag, "ERR! [%d] std_udl_stage_start fail\n", stage);
            return result;
        }
    }
    if (row.send_bin) {
        const int result = send_image(row);
        if (result < 0) return result;
    }
    if (row.stage_done) {
        const unsigned boot_stage = static_cast<unsigned>(Container::getRvdArgs()->boot_stage);
        const int result = protocol->std_udl_stage_done(DOWNLOAD, row.stage, boot_stage);
        if (result < 0) {
            Log::info(kTag, "ERR! [%d] std_udl_stage_done fail\n", stage);
            return result;
        }
    }
    return 0;
}

int BootDumpExt::send_image(const std_dload_control& row) {
    constexpr char kTag[] = "std_boot_load_cp_images";
    Protocol* protocol = Container::getProtocol();
    const int stage = static_cast<int>(row.stage);
    int result = protocol->std_dl_send_bin(row.stage, row.fd, row.b_off, row.size);
    if (result < 0) {
        Log::info(kTag, "ERR! [%d] std_dl_send_bin fail\n", stage);
        return result;
    }
    if (!row.send_crc) return 0;
    result = protocol->std_dl_send_crc(row.stage, row.crc);
    if (result >= 0) return 0;
    if (check_vtc_sales_code()) {
        Log::info(kTag, "secure err: Invalid Main image\n");
        std_reboot_system("secure");
    } else {
        Log::info(kTag, "ERR! [%d] std_dl_send_crc fail\n", stage);
    }
    return result;
}

}  // namespace rvd

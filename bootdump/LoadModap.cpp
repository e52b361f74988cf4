// Loads the integrated modem: the planned stages, chunk by chunk through the driver.
#include <errno.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "bootdump/BootDumpModap.h"
#include "log/Log.h"
#include "main/Container.h"
#include "util/Heap.h"
#include "util/Property.h"

namespace rvd {

namespace {

constexpr char kFirstXmitDone[] = "vendor.rvd.first_xmit_done";

}  // namespace

int BootDumpModap::load_cp_images(cp_boot_mode mode) {
    const Property sent(kFirstXmitDone, "0");
    const unsigned last = static_cast<unsigned>(boot_args_.max_stage);
    for (unsigned stage = boot_args_.first_stage; stage <= last; ++stage) {
        if (boot_args_.dload[stage].skip_if_sent && sent.is_set()) {
            Log::info("load_cp_images", "stage[%u] : stage is already xmit once\n", stage);
            continue;
        }
        const int result = load_cp_image_by_stage(stage, mode);
        if (result < 0) {
            Log::info("load_cp_images", "ERR! load_cp_image_by_stage stage[%u] fail\n", stage);
            return result;
        }
    }
    property_set(kFirstXmitDone, "1");
    return static_cast<unsigned char>(sent.text()[0]) - '0';
}

int BootDumpModap::load_cp_image_by_stage(unsigned int stage, cp_boot_mode mode) {
    const std_dload_control& entry = boot_args_.dload[stage];
    const HeapPtr<char> buffer = heap_bytes(kImageChunk);
    if (!buffer) {
        Log::info("load_cp_image_by_stage", "ERR! malloc(%d) fail\n", static_cast<int>(entry.size));
        return -ENOMEM;
    }
    cp_image image = {};
    image.image_addr = reinterpret_cast<uintptr_t>(buffer.get());
    image.size = entry.size;
    image.m_offset = entry.m_off;
    image.b_offset = entry.b_off;
    image.mode = mode;
    image.len = kImageChunk;
    Log::info("load_cp_image_by_stage",
              "stage=%u(%u), b_off=0x%08x, m_off=0x%08x, b_size=0x%08x, mode=0x%08x\n", stage,
              entry.stage, entry.b_off, entry.m_off, entry.size, mode);
    if (lseek(entry.fd, static_cast<off_t>(entry.b_off), SEEK_SET) < 0) {
        Log::error("load_cp_image_by_stage", "ERR! lseek fail at stage %u\n", stage);
        return -1;
    }
    const int result = send_chunks(entry, stage, &image, buffer.get());
    if (result != 0) return result;
    Log::info("load_cp_image_by_stage", "%u stage complelte\n", stage);
    return 0;
}

int BootDumpModap::send_chunks(const std_dload_control& entry, unsigned int stage, cp_image* image,
                               char* buffer) {
    // A short chunk tells the driver that the image ends; if the image's size is a multiple of the
    // chunk size, that chunk is empty.
    for (uint32_t sent = 0;; sent += image->len, image->m_offset += image->len) {
        const bool last = entry.size - sent < kImageChunk;
        if (last) image->len = entry.size - sent;
        const ssize_t count = read(entry.fd, buffer, image->len);
        if (count < 0) {
            Log::error("load_cp_image_by_stage", "ERR! read fail at stage %u\n", stage);
            return -1;
        }
        if (static_cast<size_t>(count) != image->len) {
            Log::info("load_cp_image_by_stage", "ERR! read %d != img.len %d\n",
                      static_cast<int>(count), static_cast<int>(image->len));
            return -EFAULT;
        }
        const int result = ioctl(boot_args_.fd[BOOT_FD_NODE], IOCTL_LOAD_CP_IMAGE, image);
        if (result != 0) {
            Log::error("load_cp_image_by_stage", "ERR! IOCTL_LOAD_CP_IMAGE fail (%u,%d)\n", stage,
                       result);
            // A positive result is a failure too, and callers test for a negative one.
            return result < 0 ? result : -EIO;
        }
        if (last) return 0;
    }
}

}  // namespace rvd

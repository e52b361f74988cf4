// The integrated modem's images: which stages a boot needs, and their way into modem memory.
#include <errno.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cutils/properties.h>

#include "bootdump/BootDumpModap.h"
#include "log/Log.h"
#include "main/Container.h"
#include "util/Heap.h"

namespace rvd {

namespace {

constexpr char kFirstXmitDone[] = "vendor.rvd.first_xmit_done";
constexpr uint32_t kChunkSize = 62 * 1024;
// A table that does not count its entries still has these four.
constexpr int32_t kLastStageOfBareToc = 3;

}  // namespace

bool BootDumpModap::prepare_boot_args(cp_boot_mode mode) {
    if (open_firmware() && select_stages(mode) && open_nv_files(mode)) {
        build_std_dload_control();
        return true;
    }
    std_boot_close_args();
    return false;
}

bool BootDumpModap::select_stages(cp_boot_mode mode) {
    const RvdArgs* args = Container::getRvdArgs();
    const toc_entry& head = boot_args_.toc[0];
    if (head.toc_count == 1) {
        boot_args_.first_stage = static_cast<uint32_t>(args->boot_stage);
        boot_args_.max_stage = kLastStageOfBareToc;
    } else {
        if (head.m_off == 0) {
            Log::info("prepare_boot_args", "ERR! invalid TOC : No info for TOC verification\n");
            return false;
        }
        boot_args_.first_stage = static_cast<uint32_t>(args->first_stage);
        boot_args_.max_stage = static_cast<int32_t>(head.toc_count) - 1;
    }
    if (args->nv_data_path[0] == '\0') boot_args_.max_stage = args->main_stage;
    if (mode == CP_BOOT_MODE_DUMP) boot_args_.max_stage = args->boot_stage;
    boot_args_.max_stage =
            static_cast<int32_t>(last_planned(static_cast<unsigned>(boot_args_.max_stage)));
    return true;
}

bool BootDumpModap::open_nv_files(cp_boot_mode mode) {
    uint32_t nv_size = 0;
    const unsigned last = static_cast<unsigned>(boot_args_.max_stage);
    for (unsigned i = boot_args_.first_stage; i <= last; ++i) {
        const toc_entry& entry = boot_args_.toc[i];
        Log::info("prepare_boot_args",
                  "toc[%d].name = %s, b_off=0x%08x, m_off=0x%08x, size=0x%08x\n",
                  static_cast<int>(i), TocName(entry).text, entry.b_off, entry.m_off, entry.size);
        if (!open_nv(entry, mode, &nv_size)) return false;
        if (has_name(entry, kTocVss)) boot_args_.has_vss = 1;
    }
    return nv_found(mode, nv_size);
}

void BootDumpModap::build_std_dload_control() {
    const bool reinit_vss = Container::getRvdArgs()->options & OPT_REINIT_VSS;
    const unsigned last = static_cast<unsigned>(boot_args_.max_stage);
    for (unsigned stage = boot_args_.first_stage; stage <= last && stage < kDloadStages; ++stage) {
        const toc_entry& entry = boot_args_.toc[stage];
        std_dload_control& planned = boot_args_.dload[stage];
        planned = {};
        planned.stage = stage;
        planned.skip_if_sent = !reinit_vss && has_name(entry, kTocVss);
        planned.fd = source_fd(entry);
        planned.b_off = entry.b_off;
        planned.m_off = entry.m_off & kModemOffsetMask;
        planned.size = entry.size;
        planned.crc = entry.crc;
        Log::info("build_std_dload_control",
                  "stage=%u, name:%s b_off=0x%08x, m_offset=0x%08x b_size=0x%08x\n", planned.stage,
                  TocName(entry).text, planned.b_off, planned.m_off, planned.size);
    }
}

int BootDumpModap::load_cp_images(cp_boot_mode mode) {
    char sent[PROPERTY_VALUE_MAX];
    property_get(kFirstXmitDone, sent, "0");
    const unsigned last = static_cast<unsigned>(boot_args_.max_stage);
    for (unsigned stage = boot_args_.first_stage; stage <= last; ++stage) {
        if (boot_args_.dload[stage].skip_if_sent && sent[0] == '1') {
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
    return sent[0] - '0';
}

int BootDumpModap::load_cp_image_by_stage(unsigned int stage, cp_boot_mode mode) {
    const std_dload_control& entry = boot_args_.dload[stage];
    const HeapPtr<char> buffer = heap_bytes(kChunkSize);
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
    image.len = kChunkSize;
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
    // The driver takes an image as complete with the first chunk that is not full, an empty one
    // behind an image of whole chunks.
    for (uint32_t sent = 0;; sent += image->len, image->m_offset += image->len) {
        const bool last = entry.size - sent < kChunkSize;
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
            // A positive result is a failure too, and must not pass for success further up.
            return result < 0 ? result : -EIO;
        }
        if (last) return 0;
    }
}

}  // namespace rvd

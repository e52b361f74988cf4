// The external modem's plan: one row per stage number, out of the table of contents.
#include "bootdump/BootDumpExt.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/link.h"

namespace rvd {

bool BootDumpExt::prepare_boot_args(cp_boot_mode mode) {
    if (open_firmware() && open_nv_files(mode)) {
        build_std_dload_control();
        return true;
    }
    std_boot_close_args();
    return false;
}

bool BootDumpExt::open_nv_files(cp_boot_mode mode) {
    constexpr char kTag[] = "prepare_boot_args";
    unsigned count = boot_args_.toc[0].toc_count;
    if (count == 1) count = static_cast<unsigned>(Container::getRvdArgs()->max_stage);
    Log::info(kTag, "max_stage: %d\n", static_cast<int>(count));
    if (count > 0) count = last_planned(count - 1) + 1;
    boot_args_.max_stage = static_cast<int32_t>(count);

    uint32_t nv_size = 0;
    for (unsigned i = 0; i < count; ++i) {
        const toc_entry& entry = boot_args_.toc[i];
        Log::info(kTag, "TOC[%d].name = %s, b_off=0x%08x, m_off=0x%08x, size=0x%08x crc=0x%08x\n",
                  static_cast<int>(i), TocName(entry).text, entry.b_off, entry.m_off, entry.size,
                  entry.crc);
        if (!open_nv(entry, mode, &nv_size)) return false;
    }
    return nv_found(mode, nv_size);
}

void BootDumpExt::build_std_dload_control() {
    for (std_dload_control& row : boot_args_.dload) {
        row = {};
        // A row that the table never fills must not read from descriptor 0.
        row.fd = -1;
    }
    const unsigned count = static_cast<unsigned>(boot_args_.max_stage);
    unsigned index = 0;
    for (; index < count && !has_name(boot_args_.toc[index], kTocOffset); ++index) {
        const std_dload_control* row = plan_row(index);
        Log::info("build_std_dload_control",
                  "stage=%u, name:%s b_off=0x%08x, m_offset=0x%08x b_size=0x%08x\n", row->stage,
                  TocName(boot_args_.toc[index]).text, row->b_off, row->m_off, row->size);
    }
    if (index >= kDloadStages) return;
    std_dload_control& end = boot_args_.dload[index];
    end = {};
    end.stage = UDL_STAGE_FINISH;
    end.stage_start = 1;
}

std_dload_control* BootDumpExt::plan_row(unsigned index) {
    const RvdArgs* args = Container::getRvdArgs();
    const toc_entry* toc = boot_args_.toc;
    const toc_entry& entry = toc[index];
    unsigned stage = index;
    if (has_name(entry, kTocName)) stage = static_cast<unsigned>(args->first_stage);
    if (has_name(entry, kTocBoot)) stage = static_cast<unsigned>(args->boot_stage);

    std_dload_control& row = boot_args_.dload[stage];
    row = {};
    row.stage = stage;
    row.stage_start = 1;
    row.send_bin = 1;
    row.send_crc = has_name(entry, kTocMain);
    row.stage_done = 1;
    row.fd = source_fd(entry);
    row.b_off = entry.b_off;
    row.size = entry.size;
    row.crc = entry.crc;
    if (has_name(entry, kTocName)) {
        row.size = toc[0].size;
        row.crc = 0;
    } else if (has_name(entry, kTocBoot)) {
        // Its image is in the modem before the link is; only its end is announced.
        row.stage_start = 0;
        row.send_bin = 0;
        row.send_crc = 1;
        row.b_off = toc[1].b_off;
        row.size = toc[1].size;
        row.crc = 0;
    }
    return &row;
}

}  // namespace rvd

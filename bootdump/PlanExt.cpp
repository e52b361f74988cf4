// The external modem's plan: one row per stage number, built from the table of contents.
#include <algorithm>
#include <iterator>

#include "bootdump/BootDumpExt.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/link.h"

namespace rvd {

namespace {

std_dload_control empty_row() {
    std_dload_control row = {};
    // Not 0: a row that no entry fills must not read from standard input.
    row.fd = -1;
    return row;
}

}  // namespace

unsigned BootDumpExt::toc_entries() const {
    const uint32_t count = boot_args_.toc[0].toc_count;
    return count == kTocUncounted ? static_cast<unsigned>(Container::getRvdArgs()->max_stage)
                                  : count;
}

unsigned BootDumpExt::images_end(unsigned count) const {
    const toc_entry* toc = boot_args_.toc;
    const auto is_offset = [](const toc_entry& entry) { return has_name(entry, kTocOffset); };
    return static_cast<unsigned>(std::find_if(toc, toc + count, is_offset) - toc);
}

bool BootDumpExt::select_stages(cp_boot_mode mode, stage_range* walked) {
    const unsigned count = toc_entries();
    Log::info("prepare_boot_args", "max_stage: %d\n", static_cast<int>(count));
    walked->end = count;
    if (const unsigned end = images_end(count); end > kDloadStages) {
        unsigned last = end - 1;
        if (!clamp_stages(mode, &last)) return false;
        walked->end = last + 1;
    }
    boot_args_.max_stage = static_cast<int32_t>(std::min(walked->end, kDloadStages));
    return true;
}

void BootDumpExt::visit_entry(unsigned index) {
    const toc_entry& entry = boot_args_.toc[index];
    Log::info("prepare_boot_args",
              "TOC[%d].name = %s, b_off=0x%08x, m_off=0x%08x, size=0x%08x crc=0x%08x\n",
              static_cast<int>(index), TocName(entry).text, entry.b_off, entry.m_off, entry.size,
              entry.crc);
}

void BootDumpExt::build_std_dload_control() {
    std::fill(std::begin(boot_args_.dload), std::end(boot_args_.dload), empty_row());
    const unsigned end = images_end(static_cast<unsigned>(boot_args_.max_stage));
    for (unsigned index = 0; index < end; ++index) {
        const std_dload_control& row = plan_row(index);
        Log::info("build_std_dload_control",
                  "stage=%u, name:%s b_off=0x%08x, m_offset=0x%08x b_size=0x%08x\n", row.stage,
                  TocName(boot_args_.toc[index]).text, row.b_off, row.m_off, row.size);
    }
    if (end < kDloadStages) boot_args_.dload[end] = finish_row();
}

std_dload_control BootDumpExt::finish_row() {
    std_dload_control row = empty_row();
    row.stage = UDL_STAGE_FINISH;
    row.stage_start = 1;
    return row;
}

bool BootDumpExt::finish_row_exceeds_plan() const {
    return toc_entries() > kDloadStages && images_end(toc_entries()) == kDloadStages;
}

const std_dload_control& BootDumpExt::plan_row(unsigned index) {
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
    row.fd = boot_args_.fd[source_slot(entry)];
    row.b_off = entry.b_off;
    row.size = entry.size;
    row.crc = entry.crc;
    if (has_name(entry, kTocName)) {
        row.size = toc[0].size;
        row.crc = 0;
    } else if (has_name(entry, kTocBoot)) {
        // Loaded through the driver before the link is up: only DONE is sent.
        row.stage_start = 0;
        row.send_bin = 0;
        row.send_crc = 1;
        row.b_off = toc[1].b_off;
        row.size = toc[1].size;
        row.crc = 0;
    }
    return row;
}

}  // namespace rvd

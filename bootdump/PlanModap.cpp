// The integrated modem's plan: which stages of the table of contents a boot or dump loads.
#include <algorithm>

#include "bootdump/BootDumpModap.h"
#include "log/Log.h"
#include "main/Container.h"

namespace rvd {

namespace {

// A table without a count has four entries.
constexpr unsigned kLastStageOfUncountedToc = 3;

}  // namespace

bool BootDumpModap::select_stages(cp_boot_mode mode, stage_range* walked) {
    const RvdArgs* args = Container::getRvdArgs();
    const toc_entry& head = boot_args_.toc[0];
    unsigned first = static_cast<unsigned>(args->boot_stage);
    unsigned last = kLastStageOfUncountedToc;
    if (head.toc_count != kTocUncounted) {
        if (head.m_off == 0) {
            Log::info("prepare_boot_args", "ERR! invalid TOC : No info for TOC verification\n");
            return false;
        }
        first = static_cast<unsigned>(args->first_stage);
        last = head.toc_count - 1;
    }
    if (args->nv_data_path[0] == '\0') last = static_cast<unsigned>(args->main_stage);
    if (mode == CP_BOOT_MODE_DUMP) last = static_cast<unsigned>(args->boot_stage);
    if (!clamp_stages(mode, &last)) return false;
    boot_args_.first_stage = first;
    boot_args_.max_stage = static_cast<int32_t>(last);
    *walked = {first, last + 1};
    return true;
}

void BootDumpModap::visit_entry(unsigned index) {
    const toc_entry& entry = boot_args_.toc[index];
    Log::info("prepare_boot_args", "toc[%d].name = %s, b_off=0x%08x, m_off=0x%08x, size=0x%08x\n",
              static_cast<int>(index), TocName(entry).text, entry.b_off, entry.m_off, entry.size);
    if (has_name(entry, kTocVss)) boot_args_.has_vss = 1;
}

void BootDumpModap::build_std_dload_control() {
    const bool reinit_vss = Container::getRvdArgs()->options & OPT_REINIT_VSS;
    const unsigned end = std::min(static_cast<unsigned>(boot_args_.max_stage) + 1, kDloadStages);
    for (unsigned stage = boot_args_.first_stage; stage < end; ++stage) {
        const toc_entry& entry = boot_args_.toc[stage];
        std_dload_control& row = boot_args_.dload[stage];
        row = {};
        row.stage = stage;
        row.skip_if_sent = !reinit_vss && has_name(entry, kTocVss);
        row.fd = boot_args_.fd[source_slot(entry)];
        row.b_off = entry.b_off;
        row.m_off = entry.m_off & kModemOffsetMask;
        row.size = entry.size;
        row.crc = entry.crc;
        Log::info("build_std_dload_control",
                  "stage=%u, name:%s b_off=0x%08x, m_offset=0x%08x b_size=0x%08x\n", row.stage,
                  TocName(entry).text, row.b_off, row.m_off, row.size);
    }
}

}  // namespace rvd

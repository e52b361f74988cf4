// Prepares the boot record: boot node, partition, table of contents and the NV files that the table
// names. The modems' Plan files turn the table into a plan.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "bootdump/BootDump.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/Protocol.h"
#include "util/Util.h"

namespace rvd {

namespace {

constexpr char kTag[] = "prepare_boot_args";

bool refused(const char* text) {
    Log::info(kTag, "%s", text);
    return false;
}

// A table may name an NV file twice: the slot keeps the last descriptor, the earlier one is closed.
void replace_fd(int32_t* slot, int fd) {
    if (*slot >= 0) close(*slot);
    *slot = fd;
}

}  // namespace

void BootDump::std_boot_init_args() {
    std_boot_args* boot = getStdBoot();
    *boot = {};
    for (int32_t& fd : boot->fd)
        fd = -1;
}

bool BootDump::std_boot_prepare_args(unsigned int max_stage) {
    std_boot_init_args();
    const char* path = Container::getRvdArgs()->boot_node;
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        Log::error("std_boot_prepare_args", "ERR! DEV(%s) open fail\n", path);
        return false;
    }
    Log::info("std_boot_prepare_args", "DEV(%s) opened (fd %d)\n", path, fd);
    getStdBoot()->fd[BOOT_FD_NODE] = fd;
    getStdBoot()->max_stage = static_cast<int32_t>(max_stage);
    return true;
}

void BootDump::std_boot_close_args() {
    for (const int32_t fd : getStdBoot()->fd) {
        if (fd >= 0) close(fd);
    }
    std_boot_init_args();
}

bool BootDump::prepare_boot_args(cp_boot_mode mode) {
    stage_range walked = {};
    if (open_firmware() && select_stages(mode, &walked) && open_nv_files(mode, walked)) {
        build_std_dload_control();
        return true;
    }
    std_boot_close_args();
    return false;
}

bool BootDump::open_firmware() {
    const RvdArgs* args = Container::getRvdArgs();
    if (!std_boot_prepare_args(static_cast<unsigned>(args->max_stage))) {
        return refused("ERR! std_boot_prepare_args fail\n");
    }
    std_boot_args* boot = getStdBoot();
    const int partition = open(args->partition_path, O_RDONLY | O_CLOEXEC);
    if (partition < 0) {
        Log::error(kTag, "ERR! BIN(%s) open fail\n", args->partition_path);
        return false;
    }
    Log::info(kTag, "BIN(%s) opened (fd %d)\n", args->partition_path, partition);
    boot->fd[BOOT_FD_PARTITION] = partition;
    // After a short read the rest of the table stays zeroed.
    if (read(partition, boot->toc, sizeof(boot->toc)) < 0) {
        Log::error(kTag, "ERR! TOC read fail\n");
        return false;
    }
    if (!has_name(boot->toc[0], kTocName)) {
        return refused("ERR! invalid TOC: No TOC\n");
    }
    if (boot->toc[0].toc_count > kTocEntries) {
        Log::info(kTag, "ERR! invalid TOC: Total TOC count is %d\n",
                  static_cast<int>(boot->toc[0].toc_count));
        return false;
    }
    return true;
}

bool BootDump::clamp_stages(cp_boot_mode mode, unsigned* last) {
    if (*last < kDloadStages) return true;
    Log::info(kTag, "ERR! last stage %u is beyond the plan, stages end at %u\n", *last,
              kDloadStages - 1);
    const toc_entry* toc = getStdBoot()->toc;
    const toc_entry* end = toc + std::min(*last, kTocEntries - 1) + 1;
    const auto has_image = [](const toc_entry& entry) { return entry.size != 0; };
    if (mode == CP_BOOT_MODE_NORMAL && std::any_of(toc + kDloadStages, end, has_image)) {
        return refused("ERR! invalid TOC: more images than the plan has stages\n");
    }
    *last = kDloadStages - 1;
    return true;
}

bool BootDump::open_nv_files(cp_boot_mode mode, const stage_range& walked) {
    uint32_t nv_size = 0;
    for (unsigned i = walked.first; i < walked.end; ++i) {
        visit_entry(i);
        if (!open_nv(getStdBoot()->toc[i], mode, &nv_size)) return false;
    }
    if (mode == CP_BOOT_MODE_DUMP || nv_size != 0 ||
        Container::getRvdArgs()->nv_data_path[0] == '\0') {
        return true;
    }
    return refused("ERR! invalid TOC : There is no NV\n");
}

bool BootDump::open_nv(const toc_entry& entry, cp_boot_mode mode, uint32_t* nv_size) {
    RvdArgs* args = Container::getRvdArgs();
    std_boot_args* boot = getStdBoot();
    const boot_fd_slot slot = source_slot(entry);
    const int size = static_cast<int>(entry.size);
    bool opened = false;
    int fd = -1;  // stays -1 if the protocol provides no protected file
    switch (slot) {
        case BOOT_FD_NV:
            opened = Util::getNvFd(mode, args->nv_data_path, size, &fd);
            break;
        case BOOT_FD_NV_NORM:
            opened = Util::getNvFd(mode, args->nv_norm_path, size, &fd);
            break;
        case BOOT_FD_NV_PROT:
            opened = Container::getProtocol()->getNvProtFd(mode, args->nv_prot_path, size, &fd);
            break;
        default:
            return true;
    }
    *nv_size = entry.size;
    if (opened) replace_fd(&boot->fd[slot], fd);
    return opened;
}

}  // namespace rvd

// What both controllers' boots begin with: links, NV validation, the partition and its table of
// contents, and the NV files the table asks for.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cutils/properties.h>

#include "bootdump/BootDump.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/Protocol.h"
#include "util/Util.h"

namespace rvd {

namespace {

constexpr char kTag[] = "prepare_boot_args";

constexpr char kNvValidated[] = "vendor.rvd.rfs_check_done";
constexpr int kNvPolls = 50;
constexpr useconds_t kNvPollPause = 100 * 1000;  // us

bool nv_validated() {
    char value[PROPERTY_VALUE_MAX];
    property_get(kNvValidated, value, "0");
    return value[0] == '1';
}

bool boot_link_supported(int link) {
    switch (link) {
        case LINK_SPI:
            Log::info("boot", "BOOT link SPI\n");
            return true;
        case LINK_SHMEM:
            Log::info("boot", "BOOT link SHMEM\n");
            return true;
        default:
            Log::info("boot", "ERR! BOOT link# %d not supported\n", link);
            return false;
    }
}

bool main_link_supported(int link, bool has_pcie) {
    if (link == LINK_C2C) {
        Log::info("boot", "MAIN link C2C\n");
    } else if (link == LINK_SHMEM) {
        Log::info("boot", "MAIN link SHMEM\n");
    } else if (link == LINK_LLI) {
        Log::info("boot", "MAIN link MIPI-LLI\n");
    } else if (link == LINK_PCIE && has_pcie) {
        Log::info("boot", "MAIN link PCIE\n");
    } else {
        Log::info("boot", "ERR! MAIN link# %d not supported\n", link);
        return false;
    }
    return true;
}

bool refused(const char* text) {
    Log::info(kTag, "%s", text);
    return false;
}

// A table may name an NV file twice; the slot keeps the last and leaks none.
void keep(int32_t* slot, int fd) {
    if (*slot >= 0) close(*slot);
    *slot = fd;
}

}  // namespace

void BootDump::log_boot_files() {
    const RvdArgs* args = Container::getRvdArgs();
    Log::info("boot", "CP boot device = %s\n", args->boot_node);
    Log::info("boot", "CP binary file = %s\n", args->partition_path);
    Log::info("boot", "CP NV data file = %s\n", args->nv_data_path);
}

int BootDump::check_links(bool has_pcie) {
    const RvdArgs* args = Container::getRvdArgs();
    return boot_link_supported(args->boot_link) && main_link_supported(args->main_link, has_pcie)
                   ? 0
                   : -ENODEV;
}

void BootDump::wait_nv_validation() {
    bool done = nv_validated();
    for (int polls = kNvPolls; !done; done = nv_validated()) {
        usleep(kNvPollPause);
        if (--polls == 0) break;
    }
    Log::info("boot", "NV validation %s\n", done ? "done" : "TIMEOUT");
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
    // What a short partition does not hold stays zero.
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

bool BootDump::open_nv(const toc_entry& entry, cp_boot_mode mode, uint32_t* nv_size) {
    RvdArgs* args = Container::getRvdArgs();
    std_boot_args* boot = getStdBoot();
    const int size = static_cast<int>(entry.size);
    boot_fd_slot slot = BOOT_FD_NV;
    bool opened = false;
    int fd = -1;  // stays so when the protected file is not provided
    if (has_name(entry, kTocNvNorm)) {
        slot = BOOT_FD_NV_NORM;
        opened = Util::getNvFd(mode, args->nv_norm_path, size, &fd);
    } else if (has_name(entry, kTocNvProt)) {
        slot = BOOT_FD_NV_PROT;
        opened = Container::getProtocol()->getNvProtFd(mode, args->nv_prot_path, size, &fd);
    } else if (has_name(entry, kTocNv)) {
        opened = Util::getNvFd(mode, args->nv_data_path, size, &fd);
    } else {
        return true;
    }
    *nv_size = entry.size;
    if (opened) keep(&boot->fd[slot], fd);
    return opened;
}

bool BootDump::nv_found(cp_boot_mode mode, uint32_t nv_size) {
    if (mode == CP_BOOT_MODE_DUMP || nv_size != 0 ||
        Container::getRvdArgs()->nv_data_path[0] == '\0') {
        return true;
    }
    return refused("ERR! invalid TOC : There is no NV\n");
}

int BootDump::source_fd(const toc_entry& entry) {
    const std_boot_args* boot = getStdBoot();
    if (has_name(entry, kTocNv)) return boot->fd[BOOT_FD_NV];
    if (has_name(entry, kTocNvNorm)) return boot->fd[BOOT_FD_NV_NORM];
    if (has_name(entry, kTocNvProt)) return boot->fd[BOOT_FD_NV_PROT];
    return boot->fd[BOOT_FD_PARTITION];
}

unsigned BootDump::last_planned(unsigned last) {
    if (last < kDloadStages) return last;
    Log::info(kTag, "ERR! last stage %u is beyond the plan, stages end at %u\n", last,
              kDloadStages - 1);
    return kDloadStages - 1;
}

}  // namespace rvd

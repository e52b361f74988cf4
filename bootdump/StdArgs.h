// A controller's two records: descriptors and state of one boot, and of one dump. A record owns the
// descriptors in its slots. While no boot or dump runs it is closed: -1 in every slot, zeros
// elsewhere.
#pragma once

#include <cstdint>

#include "bootdump/lnkm.h"
#include "bootdump/toc.h"

namespace rvd {

constexpr unsigned kFdSlots = 8;

enum boot_fd_slot : unsigned {
    BOOT_FD_NODE = 0,       // boot node: requests and the download link
    BOOT_FD_PARTITION = 1,  // firmware partition
    BOOT_FD_NV = 2,
    BOOT_FD_NV_NORM = 3,
    BOOT_FD_NV_PROT = 4,
};

enum dump_fd_slot : unsigned {
    DUMP_FD_NODE = 0,  // dump node: requests and the upload link
    DUMP_FD_LOG = 5,   // crash text log; while open, dump messages go there too
    DUMP_FD_INFO = 6,  // crash info file
    DUMP_FD_DUMP = 7,  // crash dump file
};

// One planned stage of a download.
struct std_dload_control {
    uint32_t stage;
    uint32_t stage_start;   // link: exchange START
    uint32_t send_bin;      // link: send the image
    uint32_t send_crc;      // link: send `crc` after the image
    uint32_t stage_done;    // link: exchange DONE
    int32_t fd;             // file of the image; owned by std_boot_args
    uint32_t b_off;         // offset of the image in `fd`
    uint32_t m_off;         // offset of the image in modem memory
    uint32_t size;          // bytes
    uint32_t crc;           // from the table of contents
    uint32_t skip_if_sent;  // driver load: skip if already loaded since the device started
};
static_assert(sizeof(std_dload_control) == 44);

constexpr unsigned kDloadStages = 13;  // stage numbers 0 to 12

// The slot of the descriptor that an entry's image is read from.
inline boot_fd_slot source_slot(const toc_entry& entry) {
    if (has_name(entry, kTocNv)) return BOOT_FD_NV;
    if (has_name(entry, kTocNvNorm)) return BOOT_FD_NV_NORM;
    if (has_name(entry, kTocNvProt)) return BOOT_FD_NV_PROT;
    return BOOT_FD_PARTITION;
}

struct std_boot_args {
    int32_t fd[kFdSlots];
    int32_t max_stage;     // integrated modem: last stage to load; external: number of entries
    uint32_t first_stage;  // integrated modem: first stage to load
    uint32_t has_vss;      // integrated modem: 1 if the plan has a "VSS" entry
    toc_entry toc[kTocEntries];
    std_dload_control dload[kDloadStages];
};

struct std_dump_args {
    int32_t fd[kFdSlots];
    uint32_t dump_size;             // bytes, announced by the modem
    uint32_t num_steps;             // announced by the modem
    uint32_t reason_len;            // bytes of reason text, announced by the modem
    char reason[kCrashReasonSize];  // "UMTS: " or "NR: ", then the modem's reason
};

}  // namespace rvd

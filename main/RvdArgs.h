// The daemon's arguments: the preset of the modem type, and what the command line changes in it.
#pragma once

#include <cstdint>

#include "bootdump/lnkm.h"
#include "util/Text.h"

namespace rvd {

enum modem_type_code : int32_t {
    MODEM_TYPE_NONE = 0,
    MODEM_TYPE_TQ720 = 1,  // integrated modem
    MODEM_TYPE_VK880 = 2,  // external modem
};

enum link_code : int32_t {
    LINK_NONE = 0,
    LINK_DPRAM = 2,
    LINK_SPI = 3,
    LINK_HSIC = 5,
    LINK_C2C = 6,
    LINK_UART = 7,
    LINK_PLD = 8,
    LINK_SHMEM = 9,
    LINK_LLI = 10,
    LINK_PCIE = 11,
};

enum option_bit : uint32_t {
    OPT_ROOT = 0x100,           // keep running as root
    OPT_VERIFY_VSS = 0x200,     // verify VSS at every boot; the daemon cannot read its memory then
    OPT_REINIT_VSS = 0x400,     // load VSS at every boot
    OPT_EHCI_TEGRA = 0x2000,    // accepted, has no effect
    OPT_UPLOAD_TEST = 0x10000,  // collect one dump at start-up
};

constexpr size_t kNodeSize = 32;  // bytes of a device node's path

// One record in static storage, zero-filled before main starts. All text is NUL-terminated.
struct RvdArgs {
    int32_t modem_type;       // modem_type_code
    int32_t boot_link;        // link_code the modem is booted over
    int32_t main_link;        // link_code used after boot
    int32_t daemon;           // 1: supervise forever, 0: boot once and exit
    const char* modem_name;   // "tq720", "vk880"
    const char* node_prefix;  // "umts", "nr": part of the names of saved files
    char boot_node[kNodeSize];
    const char* boot_device;  // points to boot_node once that is set
    char dump_node[kNodeSize];
    char partition_path[kPathSize];       // firmware images and their table of contents
    char nv_data_path[kPathSize];         // file of "NV"; empty: no NV data
    char nv_norm_path[kPathSize];         // file of "NV_NORM"
    char nv_prot_path[kPathSize];         // file of "NV_PROT"
    int32_t max_stage;                    // number of stages where the table has no count
    int32_t first_stage;                  // table index at which a full load starts
    int32_t boot_stage;                   // table index of the boot loader
    int32_t main_stage;                   // last table index loaded when there is no NV data
    uint32_t options;                     // option_bit
    char crash_reason[kCrashReasonSize];  // passed to the driver with the panic request
};

}  // namespace rvd

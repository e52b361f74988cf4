// The daemon's arguments: what the command line says, completed by the preset of the modem type.
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
    OPT_ROOT = 0x100,           // keep root rights
    OPT_VERIFY_VSS = 0x200,     // verify VSS at every boot; its memory is then out of reach
    OPT_REINIT_VSS = 0x400,     // load VSS at every boot
    OPT_EHCI_TEGRA = 0x2000,    // accepted, without effect
    OPT_UPLOAD_TEST = 0x10000,  // one dump at start-up
};

constexpr size_t kNodeSize = 32;  // of a device node's path

// One record in static storage, zero-filled before main starts. All text is NUL-terminated.
struct RvdArgs {
    int32_t modem_type;       // modem_type_code
    int32_t boot_link;        // link_code the modem is booted over
    int32_t main_link;        // link_code used after boot
    int32_t daemon;           // 1: supervise for ever, 0: boot once and exit
    const char* modem_name;   // "tq720", "vk880"
    const char* node_prefix;  // "umts", "nr": tag in file and log-save names
    char boot_node[kNodeSize];
    const char* boot_device;  // boot_node, once there is one
    char dump_node[kNodeSize];
    char partition_path[kPathSize];       // firmware images and their table of contents
    char nv_data_path[kPathSize];         // backs "NV"; empty: no NV data
    char nv_norm_path[kPathSize];         // backs "NV_NORM"
    char nv_prot_path[kPathSize];         // backs "NV_PROT"
    int32_t max_stage;                    // stages of a table that does not count them
    int32_t first_stage;                  // table index at which a full load starts
    int32_t boot_stage;                   // table index of the boot loader
    int32_t main_stage;                   // last table index loaded when there is no NV data
    uint32_t options;                     // option_bit
    char crash_reason[kCrashReasonSize];  // what a kernel panic is triggered with
};

}  // namespace rvd

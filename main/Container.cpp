#include "main/Container.h"

#include <string.h>

#include <new>

#include "bootdump/BootDumpExt.h"
#include "bootdump/BootDumpModap.h"
#include "log/Log.h"
#include "protocol/Protocol.h"
#include "srinfo/SrinfoVelo.h"
#include "util/Text.h"

namespace rvd {

namespace {

RvdArgs rvd_args;
BootDump* controller;
Protocol* link_protocol;
Srinfo* silent_reset_info;

struct Preset {
    int32_t modem_type;
    int32_t boot_link;
    int32_t main_link;
    const char* modem_name;
    const char* node_prefix;
    const char* boot_node;
    const char* dump_node;
    const char* nv_data_path;
    int32_t max_stage;
    int32_t first_stage;
    int32_t boot_stage;
    int32_t main_stage;
    const char* message;
    BootDump* (*create)();
};

template <class Controller>
BootDump* create() {
    return new (std::nothrow) Controller;
}

constexpr Preset kPresets[] = {
        {MODEM_TYPE_TQ720, LINK_SHMEM, LINK_SHMEM, "tq720", "umts", "/dev/umts_boot0",
         "/dev/umts_ramdump0", "/mnt/vendor/efs/nv_data.bin", 5, 0, 1, 2, "TQ720 modem\n",
         create<BootDumpModap>},
        {MODEM_TYPE_VK880, LINK_SPI, LINK_PCIE, "vk880", "nr", "/dev/nr_boot0", "/dev/nr_ramdump0",
         "/mnt/vendor/efs/nv_5g_data.bin", 6, 1, 0, 2, "VK880 modem\n", create<BootDumpExt>},
};
constexpr char kPartitionPath[] = "/dev/block/by-name/modem";
constexpr size_t kModemNameLength = 5;  // the rest of the argument is ignored

void apply(const Preset& preset) {
    rvd_args.modem_type = preset.modem_type;
    rvd_args.boot_link = preset.boot_link;
    rvd_args.main_link = preset.main_link;
    rvd_args.modem_name = preset.modem_name;
    rvd_args.node_prefix = preset.node_prefix;
    format_text(rvd_args.boot_node, "%s", preset.boot_node);
    rvd_args.boot_device = rvd_args.boot_node;
    format_text(rvd_args.dump_node, "%s", preset.dump_node);
    format_text(rvd_args.partition_path, "%s", kPartitionPath);
    format_text(rvd_args.nv_data_path, "%s", preset.nv_data_path);
    rvd_args.max_stage = preset.max_stage;
    rvd_args.first_stage = preset.first_stage;
    rvd_args.boot_stage = preset.boot_stage;
    rvd_args.main_stage = preset.main_stage;
}

}  // namespace

RvdArgs* Container::getRvdArgs() {
    return &rvd_args;
}

BootDump* Container::getBootDump() {
    return controller;
}

std_boot_args* Container::getStdBoot() {
    return controller == nullptr ? nullptr : controller->getStdBoot();
}

std_dump_args* Container::getStdDump() {
    return controller == nullptr ? nullptr : controller->getStdDump();
}

void Container::setProtocol(Protocol* protocol) {
    link_protocol = protocol;
}

Protocol* Container::getProtocol() {
    return link_protocol;
}

Srinfo* Container::getSrinfo() {
    return silent_reset_info;
}

bool Container::select_modem(const char* type) {
    for (const Preset& preset : kPresets) {
        if (strncmp(type, preset.modem_name, kModemNameLength) != 0) continue;
        Log::info("parseArgs", "%s", preset.message);
        apply(preset);
        controller = preset.create();
        silent_reset_info = new (std::nothrow) SrinfoVelo;
        return controller != nullptr && silent_reset_info != nullptr;
    }
    Log::info("parseArgs", "Unknown modem\n");
    return false;
}

}  // namespace rvd

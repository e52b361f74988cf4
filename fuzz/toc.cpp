// The table of contents, and what is planned and loaded from it: a boot and a dump of either
// controller from a partition that the input wrote.
#include <unistd.h>

#include <algorithm>

#include "bootdump/BootDumpExt.h"
#include "bootdump/BootDumpModap.h"
#include "fuzz/support.h"
#include "main/Container.h"
#include "protocol/ProtocolVelo.h"

using namespace rvd;
using namespace rvd::fuzz;

namespace {

// A boot loader that says what is expected from it, until the input has it fail.
class WillingLoader : public ProtocolVelo {
  public:
    int std_udl_req_resp(operation, unsigned int, unsigned int) override {
        return input != nullptr && input->take<uint8_t>() == 0xEE ? -14 : 0;
    }
    Input* input = nullptr;
};
WillingLoader loader;

void check_plan(const std_boot_args& boot) {
    const auto slots_end = boot.fd + kFdSlots;
    for (const int32_t* fd = boot.fd; fd != slots_end; ++fd)
        require(*fd == -1 || std::find(fd + 1, slots_end, *fd) == slots_end, "a slot is its own");
    require(boot.max_stage >= 0 && boot.max_stage <= int32_t{kDloadStages}, "the plan has room");
    for (const std_dload_control& row : boot.dload) {
        require(row.m_off <= kModemOffsetMask, "an offset lies in modem memory");
        require(row.size == 0 || row.fd == -1 || std::find(boot.fd, slots_end, row.fd) != slots_end,
                "an image comes from a file of the record");
    }
}

void load(BootDump* controller, bool external) {
    if (external) {
        static_cast<BootDumpExt*>(controller)->ostra_dump_boot();
        static_cast<BootDumpExt*>(controller)->std_boot_load_cp_images();
    } else {
        static_cast<BootDumpModap*>(controller)->load_cp_images(CP_BOOT_MODE_DUMP);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const uint8_t choice = input.take<uint8_t>();
    Input answers(input.take_bytes(24));
    const Run run(&answers);

    const bool external = choice & 0x01;
    const Modem& modem = external ? vk880() : tq720();
    RvdArgs& args = *Container::getRvdArgs();
    args = modem.args;
    if (choice & 0x02) args.options |= OPT_VERIFY_VSS;
    if (choice & 0x04) args.options |= OPT_REINIT_VSS;
    if (choice & 0x08) args.nv_data_path[0] = '\0';
    if (choice & 0x10) args.boot_link = LINK_SHMEM;
    unlink(modem.args.nv_data_path);
    if (choice & 0x20) test::write_file(modem.args.nv_data_path, "the modem's own");
    set_property("vendor.rvd.rfs_check_done", "1");
    set_property("vendor.rvd.first_xmit_done", choice & 0x40 ? "1" : "0");
    set_property("ro.vtc.sales_code", choice & 0x80 ? "TMB" : "");
    test::write_file(args.partition_path, std::string(input.rest()));
    loader.input = &answers;
    Container::setProtocol(&loader);

    modem.controller->boot();
    if (modem.controller->prepare_boot_args(CP_BOOT_MODE_NORMAL))
        check_plan(*modem.controller->getStdBoot());
    modem.controller->std_boot_close_args();
    if (modem.controller->prepare_boot_args(CP_BOOT_MODE_DUMP)) {
        check_plan(*modem.controller->getStdBoot());
        load(modem.controller, external);
    }
    modem.controller->std_boot_close_args();
    return 0;
}

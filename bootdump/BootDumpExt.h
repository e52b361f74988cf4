// The external modem: the driver carries its boot loader over, everything else goes to that loader
// over the link, stage by stage.
#pragma once

#include "bootdump/BootDump.h"

namespace rvd {

class BootDumpExt : public BootDump {
  public:
    BootDumpExt();

    int boot() override;
    int dump() override;
    std_boot_args* getStdBoot() override { return &boot_args_; }
    std_dump_args* getStdDump() override { return &dump_args_; }
    void build_std_dload_control() override;
    bool prepare_boot_args(cp_boot_mode mode) override;

    // Power on, boot loader, images over the link, completion.
    int ostra_normal_boot();
    // Reset into dump mode and start of the boot loader.
    int ostra_dump_boot();
    // Hands the whole image of one row to the driver in one request.
    int std_boot_load_cp_bootloader(unsigned int stage);
    // Runs the rows of the plan over the link.
    int std_boot_load_cp_images();

  private:
    bool open_nv_files(cp_boot_mode mode);
    std_dload_control* plan_row(unsigned index);
    int load_row(const std_dload_control& row);
    int send_image(const std_dload_control& row);
    int dump_steps();

    std_boot_args boot_args_;
    std_dump_args dump_args_;
};

}  // namespace rvd

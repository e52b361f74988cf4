// The external modem: the driver loads its boot loader, which takes everything else over the link,
// stage by stage.
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

    // Power on, boot loader, images over the link, completion.
    int ostra_normal_boot();
    // Reset into dump mode and start of the boot loader.
    int ostra_dump_boot();
    // Loads the whole image of one row through the driver in one request.
    int std_boot_load_cp_bootloader(unsigned int stage);
    // Runs the rows of the plan over the link.
    int std_boot_load_cp_images();

  private:
    bool select_stages(cp_boot_mode mode, stage_range* walked) override;
    void note_entry(unsigned index) override;
    // Entries of the table, and the index where its images end: the first "OFFSET" among `count`
    // entries, or `count`.
    unsigned toc_entries() const;
    unsigned images_end(unsigned count) const;
    // Fills the row of an entry and returns it.
    const std_dload_control& plan_row(unsigned index);
    // The row that ends a download: START of stage 15 alone.
    static std_dload_control finish_row();
    // Whether "OFFSET" stands right behind a plan whose rows are all taken.
    bool finishes_behind_plan() const;
    int load_row(const std_dload_control& row);
    int send_image(const std_dload_control& row);
    int dump_steps();

    std_boot_args boot_args_;
    std_dump_args dump_args_;
};

}  // namespace rvd

// The external modem: the driver loads its boot loader, which then receives everything else over
// the link, stage by stage.
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

    // Powers the modem on, loads and starts its boot loader, sends the images over the link and
    // completes the boot.
    int ostra_normal_boot();
    // Resets the modem into dump mode, loads and starts its boot loader.
    int ostra_dump_boot();
    // Loads the image of plan row `stage` through the driver, in one request.
    int std_boot_load_cp_bootloader(unsigned int stage);
    // Executes the rows of the plan over the link.
    int std_boot_load_cp_images();

  private:
    bool select_stages(cp_boot_mode mode, stage_range* walked) override;
    void visit_entry(unsigned index) override;
    // The number of table entries, and the index where its images end: the first "OFFSET" among
    // `count` entries, or `count`.
    unsigned toc_entries() const;
    unsigned images_end(unsigned count) const;
    // Fills and returns the plan row of a table entry.
    const std_dload_control& plan_row(unsigned index);
    // The row that ends a download: only START of stage 15.
    static std_dload_control finish_row();
    // Whether the images fill all rows of the plan, so that the finish row needs one more.
    bool finish_row_exceeds_plan() const;
    int load_row(const std_dload_control& row);
    int send_image(const std_dload_control& row);
    int dump_steps();

    std_boot_args boot_args_;
    std_dump_args dump_args_;
};

}  // namespace rvd

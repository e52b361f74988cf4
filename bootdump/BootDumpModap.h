// The integrated modem: its memory is loaded chunk by chunk through the driver, which also verifies
// it; the link only carries the handshake and the crash dump.
#pragma once

#include "bootdump/BootDump.h"

namespace rvd {

class BootDumpModap : public BootDump {
  public:
    BootDumpModap();

    int boot() override;
    int dump() override;
    std_boot_args* getStdBoot() override { return &boot_args_; }
    std_dump_args* getStdDump() override { return &dump_args_; }
    void build_std_dload_control() override;
    bool prepare_boot_args(cp_boot_mode mode) override;

    // Takes (non-zero) or releases (zero) the wake lock; failures are only logged.
    void boot_wake_lock(int lock);
    // One security request. 0 on success; a positive result is the driver's code for an image that
    // may not run, and does not stop the boot.
    int std_security_req(unsigned int mode, unsigned int param1, unsigned int param2);
    // Loads every planned stage. Returns whether images had been loaded before since the device
    // started (0 no, 1 yes), or the failing stage's negative result.
    int load_cp_images(cp_boot_mode mode);
    // Loads one stage. 0, or negative; a non-zero result of the driver is handed on.
    int load_cp_image_by_stage(unsigned int stage, cp_boot_mode mode);

  private:
    int boot_steps();
    int request_secure_mode(int loaded_before);
    int request_vss_check(int loaded_before);
    bool select_stages(cp_boot_mode mode);
    bool open_nv_files(cp_boot_mode mode);
    int send_chunks(const std_dload_control& entry, unsigned int stage, cp_image* image,
                    char* buffer);

    int dump_steps();
    int receive_dump();
    void collect_regions();
    int boot_dump_loader();

    std_boot_args boot_args_;
    std_dump_args dump_args_;
};

}  // namespace rvd

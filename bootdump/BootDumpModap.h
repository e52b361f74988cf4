// The integrated modem: the driver loads its images chunk by chunk and verifies them; the link
// carries only the handshake and the crash dump.
#pragma once

#include "bootdump/BootDump.h"

namespace rvd {

// Bytes of an image in one load request.
constexpr uint32_t kImageChunk = 62 * 1024;

// Table entries at fixed positions, which the security requests refer to.
enum fixed_stage : unsigned { STAGE_TOC = 0, STAGE_BOOT = 1, STAGE_MAIN = 2, STAGE_VSS = 3 };

class BootDumpModap : public BootDump {
  public:
    BootDumpModap();

    int boot() override;
    int dump() override;
    std_boot_args* getStdBoot() override { return &boot_args_; }
    std_dump_args* getStdDump() override { return &dump_args_; }
    void build_std_dload_control() override;

    // Takes (non-zero) or releases (zero) the wake lock; failures are only logged.
    void boot_wake_lock(int lock);
    // One security request. Returns 0 on success. On failure returns -1, or the driver's own
    // result, which may be positive, if `mode` is SECURITY_NON_SECURE or a reboot was requested.
    int std_security_req(unsigned int mode, unsigned int param1, unsigned int param2);
    // Loads every planned stage. Returns 1 if images had already been loaded since the device
    // started, 0 if not, or the negative result of the stage that failed.
    int load_cp_images(cp_boot_mode mode);
    // Loads one stage. Returns 0, or a negative value on failure.
    int load_cp_image_by_stage(unsigned int stage, cp_boot_mode mode);

  private:
    int boot_steps();
    int request_secure_mode(int loaded_before);
    int request_vss_check(int loaded_before);
    bool select_stages(cp_boot_mode mode, stage_range* walked) override;
    void visit_entry(unsigned index) override;
    int send_chunks(const std_dload_control& entry, unsigned int stage, cp_image* image,
                    char* buffer);

    int dump_steps();
    void collect_regions();
    int boot_dump_loader();

    std_boot_args boot_args_;
    std_dump_args dump_args_;
};

}  // namespace rvd

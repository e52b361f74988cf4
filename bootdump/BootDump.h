// The modem controller: boots the modem, collects its crash dump, powers it off and sends the
// device into upload mode. A process has one. This base class implements what both modems
// share; the derived class of each modem owns the two records and implements what differs. Main
// thread only.
//
// Results: 0 or more on success, otherwise the negative result of the first step that failed; an
// operation logs every failure before it returns.
#pragma once

#include "bootdump/StdArgs.h"

namespace rvd {

class BootDump {
  public:
    virtual ~BootDump() {}

    // Boots the modem and reports the completed boot to the driver.
    virtual int boot() = 0;
    // Collects a crash dump, then triggers the kernel panic.
    virtual int dump() = 0;
    // Powers the modem off at device shutdown. Returns 0, or -errno if the boot node cannot be
    // opened.
    virtual int shutdown();
    // Has the driver panic the kernel with the crash reason in the arguments; the device then goes
    // into upload mode.
    virtual int upload();
    // Passes the SIM count that the factory stored to the driver.
    virtual void set_sim_configuration();
    // upload() with this crash reason, of fewer than 512 bytes.
    virtual int set_kernel_panic(const char* reason);
    // The records of the current boot and dump; closed when none is running.
    virtual std_boot_args* getStdBoot() = 0;
    virtual std_dump_args* getStdDump() = 0;
    // Fills the download plan, `dload`, from the table of contents in the boot record.
    virtual void build_std_dload_control() = 0;
    // Asks the driver for the modem's state. Needs an open boot record.
    virtual int get_modem_state();
    // Copies one memory region of the modem into a file in the log directory.
    virtual int get_log_dump(const char* name, cp_log_dump_index idx);
    // Asks the platform to reboot the device.
    virtual int std_reboot_system(const char* reason);
    // Whether the device's carrier wants a reboot when the modem refuses its image.
    virtual bool check_vtc_sales_code();
    // Opens everything that a boot of this mode needs into the boot record and fills the plan. On
    // failure returns false with the record closed.
    virtual bool prepare_boot_args(cp_boot_mode mode);
    // Initialises the boot record and opens only the boot node into it.
    virtual bool std_boot_prepare_args(unsigned int max_stage);
    // Closes the record's descriptors and initialises it.
    virtual void std_boot_close_args();
    // Driver requests: power on, reset, start of the modem's boot loader. Need an open boot record.
    virtual int std_boot_power_on();
    virtual int std_boot_power_reset(cp_boot_mode mode);
    virtual int std_boot_start_cp_bootloader(cp_boot_mode mode);
    // Requests the completion of the boot and notifies the driver whether it succeeded.
    virtual int std_boot_complete_normal_bootup();
    // Checks the free space, opens the dump node and the crash files into the dump record, and
    // writes the versions. On failure returns false; std_dump_close_args closes what is open.
    virtual bool std_dump_prepare_args();
    // Flushes the crash files, closes the record's descriptors and initialises it.
    virtual void std_dump_close_args();
    // Receives the crash dump over the link into the files in the dump record.
    virtual int std_dump_receive_cp_dump();
    // Flushes and closes the crash files, then has the driver panic the kernel with the crash
    // reason.
    virtual int std_dump_trigger_kernel_panic();
    // Logs the versions of driver and daemon, also to the crash text log.
    virtual int std_dump_write_versions();
    // Zeroes a record and sets its descriptors to -1, without closing them.
    virtual void std_boot_init_args();
    virtual void std_dump_init_args();

  protected:
    // --- The first steps of a boot ---------------------------------------------------------------

    // Logs the paths of the boot node, the partition and the NV file.
    static void log_boot_files();
    // Returns 0, or -19 (-ENODEV) for a link that this modem does not have.
    static int check_links(bool has_pcie);
    // Waits for the property that the platform sets once the NV data is validated: up to 50 checks,
    // each followed by a pause of 100 ms, and one more if `check_after_last_pause`. The boot
    // continues after a timeout.
    static void wait_nv_validation(bool check_after_last_pause);

    // --- Preparation of the boot record ----------------------------------------------------------

    // Indexes of table entries, from `first` up to but not including `end`.
    struct stage_range {
        unsigned first, end;
    };
    // Selects the table entries that a boot of this mode uses, and sets the stage fields of the
    // boot record. False: the table is refused.
    virtual bool select_stages(cp_boot_mode mode, stage_range* walked) = 0;
    // Called for each of these entries in order; logs it.
    virtual void visit_entry(unsigned index) = 0;
    // Clamps the last stage to the plan's size, with a message. False: a normal boot would lose
    // images.
    bool clamp_stages(cp_boot_mode mode, unsigned* last);

    // Logs a failed step and returns `result`.
    static int failed(const char* tag, const char* text, int result);
    // The same, also to the crash text log.
    static int dump_failed(const char* tag, const char* text, int result);

  private:
    // Opens the boot node and the partition, reads the table of contents and checks entry 0.
    bool open_firmware();
    // Opens the NV files of the entries in `walked`. False if one cannot be opened, or a normal
    // boot needs NV data and the table has none.
    bool open_nv_files(cp_boot_mode mode, const stage_range& walked);
    // For an NV entry: opens its file into its slot and sets `*nv_size` to the entry's size. Does
    // nothing for other entries.
    bool open_nv(const toc_entry& entry, cp_boot_mode mode, uint32_t* nv_size);
};

}  // namespace rvd

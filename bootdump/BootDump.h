// The modem controller: boots the modem, collects its crash dump, powers it off and sends the
// device into upload mode. A process has one, of its modem's variant. What both variants do has its
// body here; a variant holds the two records and what differs. Main thread only.
//
// Results: 0 or more on success, the first failing step's negative result otherwise; every failure
// has been logged when an operation returns.
#pragma once

#include "bootdump/StdArgs.h"

namespace rvd {

class BootDump {
  public:
    virtual ~BootDump() {}

    // Boots the modem up to the completed normal boot-up.
    virtual int boot() = 0;
    // Collects a crash dump, then triggers the kernel panic.
    virtual int dump() = 0;
    // Powers the modem off at device shutdown. The negated errno when the boot node does not open.
    virtual int shutdown();
    // Sends the device into upload mode with the crash reason of the arguments.
    virtual int upload();
    // Writes the SIM count of the factory to the driver.
    virtual void set_sim_configuration();
    // upload() with this reason, shorter than 512 bytes.
    virtual int set_kernel_panic(const char* reason);
    // The records of the current boot and dump, closed between them.
    virtual std_boot_args* getStdBoot() = 0;
    virtual std_dump_args* getStdDump() = 0;
    // Plans the stages of the table of contents in the boot record into its `dload`.
    virtual void build_std_dload_control() = 0;
    // The driver's state number, asked on the open boot record.
    virtual int get_modem_state();
    // Copies one memory region into a file of the log directory.
    virtual int get_log_dump(const char* name, cp_log_dump_index idx);
    // Asks the platform to reboot the device.
    virtual int std_reboot_system(const char* reason);
    // Whether the device's carrier wants a reboot when the modem refuses its image.
    virtual bool check_vtc_sales_code();
    // Opens the boot record with everything a boot of this mode needs and plans it. False: the
    // record is closed again.
    virtual bool prepare_boot_args(cp_boot_mode mode);
    // Opens the boot record with the boot node alone.
    virtual bool std_boot_prepare_args(unsigned int max_stage);
    // Closes the record's descriptors and initialises it.
    virtual void std_boot_close_args();
    // Requests on the open boot record: power on, reset, start of the modem's boot loader.
    virtual int std_boot_power_on();
    virtual int std_boot_power_reset(cp_boot_mode mode);
    virtual int std_boot_start_cp_bootloader(cp_boot_mode mode);
    // Completes the boot-up and notifies the driver how that went.
    virtual int std_boot_complete_normal_bootup();
    // Opens the dump record: storage checked, dump node and crash files open, versions written.
    // False leaves what was opened in the record.
    virtual bool std_dump_prepare_args();
    // Flushes the crash files, closes the record's descriptors and initialises it.
    virtual void std_dump_close_args();
    // Receives the crash dump over the link into the files of the dump record.
    virtual int std_dump_receive_cp_dump();
    // Completes the crash files and has the driver panic the kernel with the crash reason.
    virtual int std_dump_trigger_kernel_panic();
    // Logs the driver's and the daemon's version, to the crash text log too.
    virtual int std_dump_write_versions();
    // Zeroes a record and sets its descriptors to -1, without closing them.
    virtual void std_boot_init_args();
    virtual void std_dump_init_args();

  protected:
    // --- What both variants' boots begin with ----------------------------------------------------

    // Logs the paths of boot node, partition and NV file.
    static void log_boot_files();
    // 0, or -19 for a link that this modem does not have.
    static int check_links(bool has_pcie);
    // Waits until the platform has validated the NV data: up to 50 pauses of 100 ms, a look at the
    // property before each, and one after the last where asked for. The boot goes on either way.
    static void wait_nv_validation(bool look_after_last_pause);

    // --- Preparation of the boot record ----------------------------------------------------------

    // Indexes of table entries, from `first` up to but not including `end`.
    struct stage_range {
        unsigned first, end;
    };
    // Selects the entries of the checked table that a boot of this mode walks, and sets the stage
    // fields of the boot record. False: the table is refused.
    virtual bool select_stages(cp_boot_mode mode, stage_range* walked) = 0;
    // Logs an entry as it is walked.
    virtual void note_entry(unsigned index) = 0;
    // Bounds the last stage of a table to what the plan has room for, with a message when that is
    // less. False: a normal boot would go without images.
    bool bound_stages(cp_boot_mode mode, unsigned* last);

    // Logs a failed step and returns its result.
    static int failed(const char* tag, const char* text, int result);
    // The same, to the crash text log too.
    static int dump_failed(const char* tag, const char* text, int result);

  private:
    // Opens the boot node and the partition, reads the table of contents and checks its head.
    bool open_firmware();
    // Opens the NV files that the walked entries name. False, too, when a normal boot finds none.
    bool open_nv_files(cp_boot_mode mode, const stage_range& walked);
    // Opens the file behind an NV entry into its slot and notes the entry's size in `*nv_size`;
    // other entries are left alone.
    bool open_nv(const toc_entry& entry, cp_boot_mode mode, uint32_t* nv_size);
};

}  // namespace rvd

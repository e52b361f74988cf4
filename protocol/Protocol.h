// The framed protocol of the link to the modem's boot loader, and queries about the device. The
// object has no state: it uses the descriptors in the controller's records. Main thread only.
//
// Results: 0 or a count on success; -5 (-EIO) after a timeout or an error condition on the link,
// -14 (-EFAULT) after an unexpected answer, or the negative result of a system call. Nothing is
// retried.
#pragma once

#include "bootdump/lnkm.h"

namespace rvd {

// The direction of a transfer, and with it the node.
enum operation : uint32_t {
    DOWNLOAD = 0,  // boot node
    UPLOAD = 1,    // dump node
};

// Timeout for one word or frame from the modem.
constexpr long kLinkTimeout = 30000;  // ms

class Protocol {
  public:
    virtual ~Protocol() {}

    // Ends a boot once the images are loaded: DONE of stage 0, START of stage 15.
    virtual int std_boot_finish_handshake() = 0;
    // Receives a crash dump into the files in the dump record.
    virtual int std_dump_receive_cp_dump() = 0;
    // Asks the platform to reboot the device. Returns 0, or a negative value if it refuses.
    virtual int std_reboot_system(const char* reason);
    // Exchanges START, or DONE, of a stage.
    virtual int std_udl_stage_start(operation op, unsigned int stage) = 0;
    virtual int std_udl_stage_done(operation op, unsigned int stage, unsigned int boot_stage) = 0;
    // Sends `size` bytes of `fd`, from byte `offset`, as the image of a stage.
    virtual int std_dl_send_bin(unsigned int stage, int fd, unsigned int offset,
                                unsigned int size) = 0;
    // Sends the CRC of a stage's image.
    virtual int std_dl_send_crc(unsigned int stage, unsigned int crc) = 0;
    // Waits for data on the dump node and reads up to `len` bytes. Returns the bytes read.
    virtual int std_ul_rx_frame(void* buf, unsigned int len);
    // Whether this device's carrier requires a reboot when the modem refuses its image.
    virtual bool check_vtc_sales_code();
    // Opens the protected NV file; the caller owns `*fd`. Returns false on failure, and true with
    // `*fd` unchanged if there is no such file.
    virtual bool getNvProtFd(cp_boot_mode mode, char* path, int size, int* fd);
    // The SIM count that the factory stored, unchecked, or a negative value if there is none.
    virtual int get_factory_prop() = 0;
    // Waits up to `timeout` ms for one of `events` on the node of `op`. Returns 0, or -5.
    virtual int std_udl_poll(operation op, short events, long timeout) = 0;
    // Reads the payload of `frame`, a udl_frame whose header is filled, from `fd` and sends the
    // frame to the boot node.
    virtual int std_dl_tx_frame(int fd, void* frame) = 0;
    // Sends the word `req`, then waits for the word `exp`; a 0 skips that half.
    virtual int std_udl_req_resp(operation op, unsigned int req, unsigned int exp);
    // Composes the crash reason in the arguments from the driver's record and `reason`, the modem's
    // own text.
    virtual void make_cp_crash_reason(char* reason);

  protected:
    // The descriptor of the node of `op`, -1 if it is not open.
    static int node_of(operation op);
};

}  // namespace rvd

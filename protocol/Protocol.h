// The framed protocol spoken with the modem's boot loader, and the queries that live beside it. The
// object has no state: it works on the descriptors of the active controller's records. Main thread
// only.
//
// Results: 0 or a count on success; -5 (-EIO) when the link stays silent, -14 (-EFAULT) when the
// modem says something else than expected, or a system call's negative result. Nothing is retried.
#pragma once

#include "bootdump/lnkm.h"

namespace rvd {

// Selects the node, and with it the direction of a transfer.
enum operation : uint32_t {
    DOWNLOAD = 0,  // boot node
    UPLOAD = 1,    // dump node
};

// How long the modem may take over one word or frame.
constexpr long kLinkTimeout = 30000;  // ms

class Protocol {
  public:
    virtual ~Protocol() {}

    // The exchange that ends a boot whose images are in place.
    virtual int std_boot_finish_handshake() = 0;
    // Receives a whole crash dump into the files of the dump record.
    virtual int std_dump_receive_cp_dump() = 0;
    // Asks the platform to reboot the device. 0, or negative when the request is refused.
    virtual int std_reboot_system(const char* reason);
    virtual int std_udl_stage_start(operation op, unsigned int stage) = 0;
    virtual int std_udl_stage_done(operation op, unsigned int stage, unsigned int boot_stage) = 0;
    // Sends `size` bytes of `fd` from byte `offset` on as the image of a stage.
    virtual int std_dl_send_bin(unsigned int stage, int fd, unsigned int offset,
                                unsigned int size) = 0;
    virtual int std_dl_send_crc(unsigned int stage, unsigned int crc) = 0;
    // Waits for the dump node and reads up to `len` bytes from it. Returns the bytes read.
    virtual int std_ul_rx_frame(void* buf, unsigned int len);
    // Whether the carrier of this device wants a reboot when the modem refuses its image.
    virtual bool check_vtc_sales_code();
    // Supplies the descriptor of the protected NV file, which the caller then owns. True with `*fd`
    // unchanged: none is provided.
    virtual bool getNvProtFd(cp_boot_mode mode, char* path, int size, int* fd);
    // The SIM count of the factory, or negative where it cannot be read.
    virtual int get_factory_prop() = 0;
    // Waits up to `timeout` ms for one of `events` on the node of `op`. 0, or -5.
    virtual int std_udl_poll(operation op, short events, long timeout) = 0;
    // Fills a udl_frame, header set, with its payload from `fd` and sends it over the boot node.
    virtual int std_dl_tx_frame(int fd, void* frame) = 0;
    // Sends the word `req` and waits for the word `exp`; either is left out when it is 0.
    virtual int std_udl_req_resp(operation op, unsigned int req, unsigned int exp);
    // Builds the crash-reason sentence of the arguments from the driver's record and `reason`, the
    // modem's own text.
    virtual void make_cp_crash_reason(char* reason);

  protected:
    // The descriptor of the node of `op`; -1 while there is none.
    static int node_of(operation op);
};

}  // namespace rvd

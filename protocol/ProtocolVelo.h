// The protocol of the tq720 and vk880 generation of modems.
#pragma once

#include "protocol/Protocol.h"

namespace rvd {

class ProtocolVelo : public Protocol {
  public:
    int std_boot_finish_handshake() override;
    int std_dump_receive_cp_dump() override;
    int std_reboot_system(const char* reason) override;
    int std_udl_stage_start(operation op, unsigned int stage) override;
    int std_udl_stage_done(operation op, unsigned int stage, unsigned int boot_stage) override;
    int std_dl_send_bin(unsigned int stage, int fd, unsigned int offset,
                        unsigned int size) override;
    int std_dl_send_crc(unsigned int stage, unsigned int crc) override;
    bool check_vtc_sales_code() override;
    int get_factory_prop() override;
    int std_udl_poll(operation op, short events, long timeout) override;
    int std_dl_tx_frame(int fd, void* frame) override;

    // Receives the announcement of a dump: its sizes and the crash reason. Returns 0, or a negative
    // value.
    int std_ul_recv_info();
    // Receives one step of the dump. Returns the bytes saved, or a negative value.
    int std_ul_recv_data(unsigned int step);
};

}  // namespace rvd

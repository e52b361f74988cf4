// Sends images to the modem's boot loader: frames, CRC, and the handshake that ends a boot.
#include <errno.h>
#include <unistd.h>

#include <algorithm>

#include "bootdump/StdArgs.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/ProtocolVelo.h"
#include "protocol/link.h"

namespace rvd {

int ProtocolVelo::std_dl_send_bin(unsigned int stage, int fd, unsigned int offset,
                                  unsigned int size) {
    constexpr char kTag[] = "std_dl_send_bin";
    if (lseek(fd, static_cast<off_t>(offset), SEEK_SET) < 0) {
        Log::error(kTag, "ERR! lseek fail\n");
        return -1;
    }
    udl_frame frame = {};
    frame.cmd = udl_request(stage, UDL_CMD_BIN);
    frame.num_frames = udl_frames(size);
    Log::info(kTag, "stage = %d\n", static_cast<int>(stage));
    Log::info(kTag, "size = %d (0x%X)\n", static_cast<int>(size), size);
    Log::info(kTag, "mtu = %d\n", static_cast<int>(UDL_MTU));
    Log::info(kTag, "mss = %d\n", static_cast<int>(UDL_MSS));
    Log::info(kTag, "frames = %d\n", static_cast<int>(frame.num_frames));

    for (uint32_t remaining = size; remaining > 0; remaining -= frame.len) {
        ++frame.curr_frame;
        frame.len = std::min(remaining, UDL_MSS);
        const int result = std_dl_tx_frame(fd, &frame);
        if (result < 0) {
            Log::info(kTag, "ERR! std_dl_tx_frame fail\n");
            return result;
        }
    }
    const int result = std_udl_req_resp(DOWNLOAD, 0, udl_response(stage, UDL_CMD_BIN));
    if (result < 0) {
        Log::info(kTag, "ERR! std_udl_req_resp fail\n");
        return result;
    }
    return 0;
}

int ProtocolVelo::std_dl_send_crc(unsigned int stage, unsigned int crc) {
    constexpr char kTag[] = "std_dl_send_crc";
    const udl_crc message = {udl_request(stage, UDL_CMD_CRC), crc};
    Log::info(kTag, "cmd = 0x%x, crc = 0x%x\n", message.cmd, message.crc);
    const ssize_t written = write(node_of(DOWNLOAD), &message, sizeof(message));
    if (written < 0) {
        Log::error(kTag, "ERR! write fail\n");
        return -1;
    }
    const int result = std_udl_req_resp(DOWNLOAD, 0, udl_response(stage, UDL_CMD_CRC));
    if (result < 0) {
        Log::info(kTag, "ERR! std_udl_req_resp fail\n");
        return result;
    }
    return 0;
}

int ProtocolVelo::std_boot_finish_handshake() {
    const unsigned boot_stage = static_cast<unsigned>(Container::getRvdArgs()->boot_stage);
    int result = std_udl_stage_done(DOWNLOAD, 0, boot_stage);
    if (result >= 0) result = std_udl_stage_start(DOWNLOAD, UDL_STAGE_FINISH);
    if (result < 0) {
        Log::info("std_boot_finish_handshake", "ERR! std_udl_stage_done fail\n");
        return result;
    }
    return 0;
}

}  // namespace rvd

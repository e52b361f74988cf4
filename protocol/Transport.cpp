// Words and frames on the two nodes, and the exchanges that start and end a stage.
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include "bootdump/StdArgs.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/ProtocolVelo.h"
#include "protocol/link.h"

namespace rvd {

namespace {

int failed_exchange(unsigned int req, unsigned int exp, int result) {
    Log::info("std_udl_req_resp", "ERR! request:0x%08X expected:0x%08X\n", req, exp);
    return result;
}

}  // namespace

int Protocol::node_of(operation op) {
    if (op == DOWNLOAD) {
        const std_boot_args* boot = Container::getStdBoot();
        return boot == nullptr ? -1 : boot->fd[BOOT_FD_NODE];
    }
    const std_dump_args* dump = Container::getStdDump();
    return dump == nullptr ? -1 : dump->fd[DUMP_FD_NODE];
}

int ProtocolVelo::std_udl_poll(operation op, short events, long timeout) {
    constexpr char kTag[] = "std_udl_poll";
    pollfd node = {node_of(op), events, 0};
    const int ready = poll(&node, 1, static_cast<int>(timeout));
    if (node.revents & events) return 0;
    if (ready > 0) {
        // POLLHUP and POLLERR are reported without being requested.
        Log::info(kTag, "ERR! poll fail (events 0x%X != revents 0x%X)\n",
                  static_cast<unsigned>(events), static_cast<unsigned>(node.revents));
    } else if (ready == 0) {
        Log::info(kTag, "ERR! poll fail (events 0x%X, TIMEOUT)\n", static_cast<unsigned>(events));
    } else {
        Log::error(kTag, "ERR! poll fail (events 0x%X)\n", static_cast<unsigned>(events));
    }
    return -EIO;
}

int Protocol::std_udl_req_resp(operation op, unsigned int req, unsigned int exp) {
    constexpr char kTag[] = "std_udl_req_resp";
    const int node = node_of(op);
    uint32_t response = 0;
    if (req != 0) {
        Log::info(kTag, "request:0x%08X\n", req);
        const ssize_t written = write(node, &req, sizeof(req));
        if (written < 0) {
            Log::error(kTag, "ERR! write fail\n");
            return failed_exchange(req, exp, -1);
        }
    }
    if (exp == 0) return 0;
    const int result = std_udl_poll(op, POLLIN, kLinkTimeout);
    if (result < 0) {
        Log::info(kTag, "ERR! std_udl_poll fail\n");
        return failed_exchange(req, exp, result);
    }
    if (read(node, &response, sizeof(response)) < 0) {
        Log::error(kTag, "ERR! read fail\n");
        return failed_exchange(req, exp, -1);
    }
    if (response != exp) {
        Log::info(kTag, "ERR! resp 0x%X != exp 0x%X\n", response, exp);
        return failed_exchange(req, exp, -EFAULT);
    }
    return 0;
}

int ProtocolVelo::std_udl_stage_start(operation op, unsigned int stage) {
    const uint32_t req = udl_request(stage, UDL_CMD_START);
    const uint32_t exp = udl_response(stage, UDL_CMD_START);
    const int result = std_udl_req_resp(op, req, exp);
    if (result < 0) {
        Log::info("std_udl_stage_start", "ERR! [stage %d] START fail (req:0x%X exp:0x%X)\n",
                  static_cast<int>(stage), req, exp);
    }
    return result;
}

int ProtocolVelo::std_udl_stage_done(operation op, unsigned int stage, unsigned int) {
    const uint32_t req = udl_request(stage, UDL_CMD_DONE);
    const uint32_t exp = udl_response(stage, UDL_CMD_DONE);
    const int result = std_udl_req_resp(op, req, exp);
    if (result < 0) {
        Log::info("std_udl_stage_done", "ERR! [stage %d] DONE fail (req:0x%X exp:0x%X)\n",
                  static_cast<int>(stage), req, exp);
    }
    return result;
}

int ProtocolVelo::std_dl_tx_frame(int fd, void* frame) {
    constexpr char kTag[] = "std_dl_tx_frame";
    udl_frame* frm = static_cast<udl_frame*>(frame);
    if (frm->len > UDL_MSS) {
        Log::info(kTag, "ERR! frm->len %u > mss %u\n", frm->len, UDL_MSS);
        return -EFAULT;
    }
    const ssize_t count = read(fd, frm->data, frm->len);
    if (count < 0) {
        Log::error(kTag, "ERR! read fail\n");
        return -1;
    }
    if (static_cast<size_t>(count) != frm->len) {
        Log::info(kTag, "ERR! rcvd %d != frm->len %d\n", static_cast<int>(count),
                  static_cast<int>(frm->len));
        return -EFAULT;
    }
    // The payload of the previous frame must not remain behind this one.
    memset(frm->data + frm->len, 0, sizeof(frm->data) - frm->len);
    const size_t length = UDL_HEADER + frm->len;
    const ssize_t sent = write(node_of(DOWNLOAD), frm, length);
    if (sent < 0) {
        Log::error(kTag, "ERR! write fail\n");
        return -1;
    }
    if (static_cast<size_t>(sent) != length) {
        Log::info(kTag, "ERR! sent %d != frm_len %d\n", static_cast<int>(sent),
                  static_cast<int>(length));
        return -EFAULT;
    }
    return 0;
}

int Protocol::std_ul_rx_frame(void* buf, unsigned int len) {
    constexpr char kTag[] = "std_ul_rx_frame";
    const int result = std_udl_poll(UPLOAD, POLLIN, kLinkTimeout);
    if (result < 0) {
        Log::dump_error(kTag, "ERR! DUMP std_udl_poll fail\n");
        return result;
    }
    const ssize_t count = read(node_of(UPLOAD), buf, len);
    if (count < 0) {
        Log::dump_error(kTag, "ERR! DUMP read fail\n");
        return -1;
    }
    return static_cast<int>(count);
}

}  // namespace rvd

// Receives a crash dump from the modem's boot loader: announcement, reason, then each step's
// frames, each of which is written to the dump file at once.
#include <errno.h>
#include <limits.h>
#include <string.h>
#include <unistd.h>

#include "bootdump/StdArgs.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/ProtocolVelo.h"
#include "protocol/link.h"
#include "util/Io.h"
#include "util/Text.h"

namespace rvd {

namespace {

// Logs a failed step, also to the crash text log, and returns `result`.
int dump_failed(const char* tag, const char* text, int result) {
    Log::dump_info(tag, "%s", text);
    return result;
}

// Appends to the prefix and truncates: a long reason must not cost the dump.
void append_reason(std_dump_args* dump, const char* text, size_t length) {
    const size_t prefix = strlen(dump->reason);
    copy_text({dump->reason + prefix, sizeof(dump->reason) - prefix}, text, length);
}

int save_crash_reason(int info_fd) {
    constexpr char kTag[] = "std_ul_recv_info";
    const char* reason = Container::getRvdArgs()->crash_reason;
    if (write_all(info_fd, reason, strlen(reason)) < 0) {
        Log::dump_error(kTag, "ERR! REASON write fail\n");
        return -1;
    }
    if (truncate_at_offset(info_fd) < 0) Log::dump_error(kTag, "ERR! ftruncate(info_fd) fail\n");
    const int result = fsync(info_fd);
    if (result != 0) Log::dump_error(kTag, "ERR! fsync(info_fd) fail (%d)\n", result);
    flush_directory(Log::get_log_dir());
    return result;
}

// Checks that a frame is the expected one and as long as its header says. Returns 0 or -14.
int check_frame(const udl_frame& frame, int received, unsigned int step, uint32_t seqn) {
    constexpr char kTag[] = "std_ul_recv_data";
    const uint32_t exp = udl_response(UDL_STAGE_DUMP, step);
    if (received < static_cast<int>(UDL_HEADER)) {
        Log::dump_info(kTag, "ERR! [step %d] frame of %d bytes has no header\n",
                       static_cast<int>(step), received);
        return -EFAULT;
    }
    if (frame.cmd != exp) {
        Log::dump_info(kTag, "ERR! [step %d] cmd 0x%X != exp 0x%X\n", static_cast<int>(step),
                       frame.cmd, exp);
        return -EFAULT;
    }
    if (frame.curr_frame != seqn) {
        Log::dump_info(kTag, "ERR! [step %d] curr_frame %d != seqn %d\n", static_cast<int>(step),
                       static_cast<int>(frame.curr_frame), static_cast<int>(seqn));
        return -EFAULT;
    }
    if (frame.len > UDL_MSS || static_cast<uint32_t>(received) - UDL_HEADER < frame.len) {
        Log::dump_info(kTag, "ERR! [step %d] seq# %d len %u in a frame of %d bytes\n",
                       static_cast<int>(step), static_cast<int>(seqn), frame.len, received);
        return -EFAULT;
    }
    return 0;
}

}  // namespace

int ProtocolVelo::std_dump_receive_cp_dump() {
    constexpr char kTag[] = "std_dump_receive_cp_dump";
    std_dump_args* dump = Container::getStdDump();

    int result = std_udl_stage_start(UPLOAD, UDL_STAGE_DUMP);
    if (result < 0) return dump_failed(kTag, "ERR! std_udl_stage_start fail\n", result);

    result = std_ul_recv_info();
    if (result < 0) return dump_failed(kTag, "ERR! std_ul_recv_info fail\n", result);

    uint64_t saved = 0;
    for (uint32_t step = 1; step <= dump->num_steps; ++step) {
        result = std_ul_recv_data(step);
        if (result < 0) return dump_failed(kTag, "ERR! std_ul_recv_data fail\n", result);
        saved += static_cast<uint64_t>(result);
    }
    if (saved != dump->dump_size) {
        Log::dump_info(kTag, "ERR! saved %d != dump_size %d\n", static_cast<int>(saved),
                       static_cast<int>(dump->dump_size));
        return -EFAULT;
    }
    if (truncate_at_offset(dump->fd[DUMP_FD_DUMP]) < 0) {
        Log::dump_error(kTag, "ERR! ftruncate(dump_fd) fail\n");
    }
    result = fsync(dump->fd[DUMP_FD_DUMP]);
    if (result < 0) {
        Log::dump_error(kTag, "ERR! fsync(dump_fd) fail\n");
        return result;
    }
    flush_directory(Log::get_log_dir());
    Log::dump_info(kTag, "DUMP DATA saved\n");

    const unsigned boot_stage = static_cast<unsigned>(Container::getRvdArgs()->boot_stage);
    result = std_udl_stage_done(UPLOAD, UDL_STAGE_DUMP, boot_stage);
    if (result < 0) return dump_failed(kTag, "ERR! DUMP std_udl_stage_done fail\n", result);
    return 0;
}

int ProtocolVelo::std_ul_recv_info() {
    constexpr char kTag[] = "std_ul_recv_info";
    std_dump_args* dump = Container::getStdDump();

    udl_dump_info info = {};
    int result = std_ul_rx_frame(&info, sizeof(info));
    if (result < 0) return dump_failed(kTag, "ERR! INFO std_ul_rx_frame fail\n", result);
    dump->dump_size = info.dump_size;
    dump->num_steps = info.num_steps;
    dump->reason_len = info.reason_len;
    Log::info(kTag, "dump_size = %d\n", static_cast<int>(info.dump_size));
    Log::info(kTag, "num_steps = %d\n", static_cast<int>(info.num_steps));
    Log::info(kTag, "reason_len = %d\n", static_cast<int>(info.reason_len));

    char reason[UDL_MTU];
    if (info.reason_len > sizeof(reason)) {
        return dump_failed(kTag, "ERR! REASON is longer than a frame\n", -EFAULT);
    }
    result = std_ul_rx_frame(reason, info.reason_len);
    if (result < 0) return dump_failed(kTag, "ERR! REASON std_ul_rx_frame fail\n", result);
    append_reason(dump, reason, static_cast<size_t>(result));

    make_cp_crash_reason(dump->reason);
    result = save_crash_reason(dump->fd[DUMP_FD_INFO]);
    if (result != 0) return result;
    Log::dump_info(kTag, "DUMP INFO saved\n");
    return 0;
}

int ProtocolVelo::std_ul_recv_data(unsigned int step) {
    constexpr char kTag[] = "std_ul_recv_data";
    const int step_no = static_cast<int>(step);
    const int dump_fd = Container::getStdDump()->fd[DUMP_FD_DUMP];
    if (step > UDL_MAX_STEP) {
        Log::dump_info(kTag, "ERR! [step %d] is beyond the last step %u\n", step_no, UDL_MAX_STEP);
        return -EFAULT;
    }
    int result = std_udl_req_resp(UPLOAD, udl_request(UDL_STAGE_DUMP, step), 0);
    if (result < 0) {
        Log::dump_info(kTag, "ERR! [step %d] start fail (ret %d)\n", step_no, result);
        return result;
    }

    udl_frame frame = {};
    uint32_t seqn = 1;
    uint32_t saved = 0;
    do {
        const int received = std_ul_rx_frame(&frame, sizeof(frame));
        if (received < 0) {
            Log::dump_info(kTag, "ERR! [step %d] std_ul_rx_frame fail (ret %d)\n", step_no,
                           received);
            return received;
        }
        result = check_frame(frame, received, step, seqn);
        if (result < 0) return result;
        if (seqn == 1) {
            Log::dump_info(kTag, "[step %d] num_frames = %d\n", step_no,
                           static_cast<int>(frame.num_frames));
            Log::dump_info(kTag, "[step %d] command = 0x%X\n", step_no, frame.cmd);
        }
        if (saved > INT_MAX - frame.len) {
            Log::dump_info(kTag, "ERR! [step %d] more than %d bytes\n", step_no, INT_MAX);
            return -EFAULT;
        }
        if (write_all(dump_fd, frame.data, frame.len) < 0) {
            Log::dump_error(kTag, "ERR! [step %d] seq# %d write fail\n", step_no,
                            static_cast<int>(frame.curr_frame));
            return -1;
        }
        ++seqn;
        saved += frame.len;
    } while (frame.curr_frame < frame.num_frames);
    Log::dump_info(kTag, "[step %d] saved = %d\n", step_no, static_cast<int>(saved));
    return static_cast<int>(saved);
}

}  // namespace rvd

// The wire format of the link to the modem's boot loader: command words, frames and the record that
// announces a dump. All fields are little-endian.
#pragma once

#include <cstddef>
#include <cstdint>

namespace rvd {

// A command word: direction in bits 15..12, stage in bits 11..8, sub-command (or step) in
// bits 7..0.
constexpr uint32_t UDL_REQ = 0x9000;   // sent by the daemon
constexpr uint32_t UDL_RESP = 0xA000;  // sent by the modem

constexpr uint32_t UDL_CMD_START = 0x00;
constexpr uint32_t UDL_CMD_BIN = 0x01;
constexpr uint32_t UDL_CMD_CRC = 0x0C;
constexpr uint32_t UDL_CMD_DONE = 0x0D;

// Stages 0 to 12 belong to the download plan.
constexpr uint32_t UDL_STAGE_DUMP = 13;
constexpr uint32_t UDL_STAGE_FINISH = 15;

// A dump's step number takes the 8 bits of the sub-command.
constexpr uint32_t UDL_MAX_STEP = 0xFF;

constexpr uint32_t udl_request(uint32_t stage, uint32_t cmd) {
    return UDL_REQ | stage << 8 | cmd;
}
constexpr uint32_t udl_response(uint32_t stage, uint32_t cmd) {
    return UDL_RESP | stage << 8 | cmd;
}

constexpr uint32_t UDL_MSS = 2048;  // largest payload of a frame

#pragma pack(push, 1)

struct udl_frame {
    uint32_t cmd;
    uint32_t num_frames;  // in this image or step
    uint32_t curr_frame;  // counts from 1
    uint32_t len;         // payload bytes
    uint8_t data[UDL_MSS];
};

struct udl_crc {
    uint32_t cmd;
    uint32_t crc;
};

struct udl_dump_info {
    uint32_t dump_size;  // bytes of all steps together
    uint32_t num_steps;
    uint32_t reason_len;  // bytes of crash reason text that follow this record
};

#pragma pack(pop)

constexpr uint32_t UDL_HEADER = offsetof(udl_frame, data);
constexpr uint32_t UDL_MTU = sizeof(udl_frame);  // largest frame

static_assert(UDL_HEADER == 16 && UDL_MTU == 2064 && offsetof(udl_frame, num_frames) == 4 &&
              offsetof(udl_frame, curr_frame) == 8 && offsetof(udl_frame, len) == 12);
static_assert(sizeof(udl_crc) == 8 && sizeof(udl_dump_info) == 12 &&
              offsetof(udl_dump_info, num_steps) == 4 && offsetof(udl_dump_info, reason_len) == 8);

// Frames needed for `size` bytes.
constexpr uint32_t udl_frames(uint32_t size) {
    return size / UDL_MSS + (size % UDL_MSS != 0);
}

}  // namespace rvd

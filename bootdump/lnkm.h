// The interface of the kernel's modem driver `lnkm`: the requests, records and constants of its
// boot and dump nodes. Records are packed and in the processor's byte order, little-endian.
#pragma once

#include <sys/ioctl.h>

#include <cstddef>
#include <cstdint>

namespace rvd {

// The purpose of a boot. Passed to the driver as a 32-bit word.
enum cp_boot_mode : uint32_t {
    CP_BOOT_MODE_NORMAL = 0,  // normal boot
    CP_BOOT_MODE_DUMP = 1,    // boot loader only, to upload a crash dump
};

// A memory region of the modem that the driver can copy out.
enum cp_log_dump_index : uint32_t {
    CP_LOG_DUMP_SHMEM = 0,
    CP_LOG_DUMP_VSS = 1,
    CP_LOG_DUMP_HXLG = 2,
    CP_LOG_DUMP_CP_BTL = 3,
    CP_LOG_DUMP_DATABUF = 4,
    CP_LOG_DUMP_L2B = 5,
};

// Result of IOCTL_GET_CP_STATUS. The driver has more states; the daemon acts on these.
enum modem_state : int {
    MODEM_STATE_OFF = 0,
    MODEM_STATE_CRASH_RESET = 1,
    MODEM_STATE_CRASH = 2,
    MODEM_STATE_CRASH_WATCHDOG = 9,
};

// First word of a security request.
enum security_mode : uint32_t {
    SECURITY_SECURE = 0,      // verify BOOT and MAIN; parameters: their sizes
    SECURITY_DUMP = 1,        // verify the dump boot loader; parameters: the same two sizes
    SECURITY_NON_SECURE = 2,  // open the modem's memory for loading; no parameters
    SECURITY_TOC = 7,         // verify one loaded stage; parameters: its memory offset and size
    SECURITY_VSS = 12,        // verify VSS on request; parameters: its memory offset and size
};

// Results of a security request: the image is not valid for this device.
constexpr uint32_t kInvalidImageCodes[] = {0x00FEED02, 0x00FEED04, 0xFEED0002, 0x00050E00};

// Who crashed the modem.
enum class crash_origin { CP, RIL, USER, LNKM, CP_WATCHDOG, CLD, UNKNOWN };

// Maps the driver's owner number.
constexpr crash_origin crash_origin_of(int32_t owner) {
    switch (owner) {
        case 0:
        case 13:
        case 14:
        case 15:
            return crash_origin::CP;
        case 1:
        case 2:
        case 3:
        case 4:
        case 9:
            return crash_origin::RIL;
        case 5:
            return crash_origin::USER;
        case 6:
        case 7:
        case 8:
        case 10:
        case 12:
            return crash_origin::LNKM;
        case 11:
            return crash_origin::CP_WATCHDOG;
        case 16:
            return crash_origin::CLD;
        default:
            return crash_origin::UNKNOWN;
    }
}

// Bytes of the text in a crash record, and of the text that IOCTL_TRIGGER_KERNEL_PANIC reads, which
// is always all of them.
constexpr size_t kCrashReasonSize = 512;

#pragma pack(push, 1)

// One chunk of an image for modem memory.
struct cp_image {
    uint64_t image_addr;  // user-space address of the bytes
    uint32_t size;        // bytes of the whole image
    uint32_t m_offset;    // offset of this chunk in modem memory
    uint32_t b_offset;    // offset of the image in its source file
    uint32_t mode;        // cp_boot_mode of the load
    uint32_t len;         // bytes at image_addr
};
static_assert(sizeof(cp_image) == 28 && offsetof(cp_image, size) == 8 &&
              offsetof(cp_image, m_offset) == 12 && offsetof(cp_image, b_offset) == 16 &&
              offsetof(cp_image, mode) == 20 && offsetof(cp_image, len) == 24);

// Selects a memory region; reads of the dump node then return its `size` bytes.
struct cp_log_dump {
    char name[32];  // NUL-terminated
    uint32_t idx;   // cp_log_dump_index
    uint32_t size;  // out
};
static_assert(sizeof(cp_log_dump) == 40 && offsetof(cp_log_dump, idx) == 32 &&
              offsetof(cp_log_dump, size) == 36);

struct cp_security_req {
    uint32_t mode;  // security_mode
    uint32_t param1;
    uint32_t param2;
    uint32_t param3;  // always 0
};
static_assert(sizeof(cp_security_req) == 16 && offsetof(cp_security_req, param3) == 12);

// A crash's owner, and the driver's text about it.
struct cp_crash_reason {
    int32_t owner;
    char text[kCrashReasonSize];  // NUL-terminated
};
static_assert(sizeof(cp_crash_reason) == 516 && offsetof(cp_crash_reason, text) == 4);

// The driver's version; not terminated if it fills all bytes.
struct lnkm_version {
    char text[20];
};
static_assert(sizeof(lnkm_version) == 20);

constexpr uint32_t kSrinfoDataSize = 4092;

// A silent-reset record: `len` bytes of data, a 16-byte header followed by text.
struct srinfo_buf {
    uint32_t len;
    char data[kSrinfoDataSize];
};
static_assert(sizeof(srinfo_buf) == 4096 && offsetof(srinfo_buf, data) == 4);

#pragma pack(pop)

// Requests, with their argument. For the boot node unless noted; results are 0 or more on success
// and negative on failure unless noted.
constexpr unsigned kLnkmType = 'o';
constexpr unsigned IOCTL_POWER_ON = _IO(kLnkmType, 0x19);
constexpr unsigned IOCTL_POWER_OFF = _IO(kLnkmType, 0x20);  // non-zero on failure
constexpr unsigned IOCTL_POWER_RESET = _IOW(kLnkmType, 0x21, cp_boot_mode);
constexpr unsigned IOCTL_START_CP_BOOTLOADER = _IOW(kLnkmType, 0x22, cp_boot_mode);
constexpr unsigned IOCTL_COMPLETE_NORMAL_BOOTUP = _IO(kLnkmType, 0x23);
constexpr unsigned IOCTL_GET_CP_STATUS = _IO(kLnkmType, 0x27);         // result: modem_state
constexpr unsigned IOCTL_TRIGGER_KERNEL_PANIC = _IO(kLnkmType, 0x35);  // both nodes; crash reason
constexpr unsigned IOCTL_LOAD_CP_IMAGE = _IOW(kLnkmType, 0x40, cp_image);     // 0 on success
constexpr unsigned IOCTL_GET_SRINFO = _IO(kLnkmType, 0x45);                   // srinfo_buf
constexpr unsigned IOCTL_SET_SRINFO = _IO(kLnkmType, 0x46);                   // srinfo_buf
constexpr unsigned IOCTL_NOTIFY_BOOT_FAIL = _IO(kLnkmType, 0x47);             // result ignored
constexpr unsigned IOCTL_NOTIFY_BOOT_DONE = _IO(kLnkmType, 0x48);             // result ignored
constexpr unsigned IOCTL_GET_LOG_DUMP = _IOWR(kLnkmType, 0x52, cp_log_dump);  // dump node
constexpr unsigned IOCTL_CHECK_SECURITY =
        _IOW(kLnkmType, 0x53, cp_security_req);  // non-zero on failure
constexpr unsigned IOCTL_GET_CP_CRASH_REASON = _IOR(kLnkmType, 0x55, cp_crash_reason);  // dump node
constexpr unsigned IOCTL_GET_LNKM_VERSION = _IOR(kLnkmType, 0x56, lnkm_version);        // dump node

static_assert(IOCTL_POWER_ON == 0x00006F19 && IOCTL_POWER_OFF == 0x00006F20 &&
              IOCTL_POWER_RESET == 0x40046F21 && IOCTL_START_CP_BOOTLOADER == 0x40046F22 &&
              IOCTL_COMPLETE_NORMAL_BOOTUP == 0x00006F23 && IOCTL_GET_CP_STATUS == 0x00006F27 &&
              IOCTL_TRIGGER_KERNEL_PANIC == 0x00006F35 && IOCTL_LOAD_CP_IMAGE == 0x401C6F40 &&
              IOCTL_GET_SRINFO == 0x00006F45 && IOCTL_SET_SRINFO == 0x00006F46 &&
              IOCTL_NOTIFY_BOOT_FAIL == 0x00006F47 && IOCTL_NOTIFY_BOOT_DONE == 0x00006F48 &&
              IOCTL_GET_LOG_DUMP == 0xC0286F52 && IOCTL_CHECK_SECURITY == 0x40106F53 &&
              IOCTL_GET_CP_CRASH_REASON == 0x82046F55 && IOCTL_GET_LNKM_VERSION == 0x80146F56);

// The driver's SIM-count file, and the kernel's wake-lock files.
constexpr char kSimCountPath[] = "/sys/devices/platform/lnkm/sim/ds_detect";
constexpr char kWakeLockPath[] = "/sys/power/wake_lock";
constexpr char kWakeUnlockPath[] = "/sys/power/wake_unlock";

}  // namespace rvd

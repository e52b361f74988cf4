// The names of the files that the daemon leaves behind, and what each says about its file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace rvd::report {

enum class Kind {
    kCrashLog,       // what was said during a dump
    kInfo,           // the crash sentence
    kDump,           // the uploaded dump
    kRegion,         // a memory region of the modem
    kKernelBefore,   // kernel logs: before a dump,
    kKernelAfter,    // after one that was received,
    kKernelFail,     // after one that failed,
    kKernelDmesg,    // after the external modem's,
    kKernelOnly,     // when the radio layer did not restart the modem,
    kKernelBoot,     // before a boot that follows a reset,
    kKernelBooted,   // and after it
    kRecords,        // silent-reset records, in hexadecimal
    kOlderRecords,   // the generation before
    kWaitingRecord,  // a record's text, until the driver has it back
    kAndroidLog,
    kUnknown,
};

// Seconds of the device's local time, counted as if it were UTC.
using DeviceTime = int64_t;

struct Name {
    Kind kind = Kind::kUnknown;
    std::string modem;     // "umts" or "nr"; empty where the name does not say
    std::string detail;    // the region, or the modem's type in the name of the crash sentence
    DeviceTime time = -1;  // -1: none in the name
    bool to_the_minute = false;
};

// The last component of a path. An unknown name is Kind::kUnknown, never an error.
Name parse_name(std::string_view name);

// "cpcrash_umts_klog_before_*.log" and the like: a file of this kind, for messages.
std::string name_of(Kind kind, std::string_view modem, std::string_view detail);

// One word for people and programs: "dump", "region", "kernel log before".
const char* kind_name(Kind kind);

bool is_kernel_log(Kind kind);
bool is_of_a_crash(Kind kind);
bool ends_a_dump(Kind kind);  // a kernel log that is saved when a dump is over

// "2020-10-01 12:31:17" and the other way round; the time of day may be left out there.
std::string format_time(DeviceTime time, bool to_the_minute = false);
std::optional<DeviceTime> parse_time(std::string_view text);

}  // namespace rvd::report

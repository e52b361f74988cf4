// What is known of one dump from its lines: which files were opened, what was announced, how far
// the dump came and what stopped it. The lines stand in the crash text log and, among others, in
// the kernel log.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "report/parse/lines.h"

namespace rvd::report {

struct RegionLog {
    uint64_t announced = 0;
    std::string path;               // as the daemon opened it; empty: it was not opened
    std::optional<uint64_t> saved;  // of a region that came whole
    std::string failure;
};

struct StepLog {
    int64_t number = 0;
    uint64_t frames = 0;
    std::optional<uint64_t> saved;  // of a step that came whole
};

struct CrashLog {
    std::string driver_version, daemon_version;
    std::vector<std::string> opened;  // paths of the three crash files
    std::vector<RegionLog> regions;   // in the order they were asked for
    std::vector<StepLog> steps;
    bool reason_saved = false, dump_saved = false;
    std::string first_failure;      // of the dump itself, not of a region
    std::optional<uint64_t> frame;  // that a failure names

    // The lines themselves, and the offset behind each in the text they come from.
    std::vector<std::string> lines;
    std::vector<size_t> line_ends;

    uint64_t saved() const;  // bytes of the steps that came whole
    void take(const Line& line);
};

// Of a crash text log, whose last line counts only with its end.
CrashLog read_crash_log(std::string_view text);

// What a kernel log tells of the last dump in it.
struct KernelLog {
    KernelTime last = kNoTime;    // of any line
    KernelTime event = kNoTime;   // when the crash was noticed
    KernelTime booted = kNoTime;  // when the modem had booted last before it
    std::string boot_step;        // that failed, where the modem crashed in its boot
    bool dump_from_the_start = false;
    CrashLog dump;         // the lines that the crash text log has as well
    std::string sentence;  // ": CP Crash by ..."; empty: not logged
    std::optional<int64_t> owner;
    std::optional<uint64_t> dump_size;
    std::vector<std::string> regions;  // asked for, by name
    std::string failure, failed_step;  // what ended the dump, and the step it failed
};

KernelLog read_kernel_log(std::string_view text);

// The size that the log of silent-reset records has after the last that was stored, by the lines
// about it.
std::optional<uint64_t> read_records_size(Sink sink, std::string_view text);

// Of any line of a kernel log, the last that has one.
KernelTime last_kernel_time(std::string_view text);

}  // namespace rvd::report

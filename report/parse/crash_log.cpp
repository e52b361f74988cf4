#include "report/parse/crash_log.h"

#include <algorithm>

#include "report/parse/records.h"

namespace rvd::report {

namespace {

// "PATH opened (fd 7)"
std::string opened_path(const Line& line) {
    const size_t at = line.message.rfind(" opened (fd ");
    return at == std::string_view::npos ? "" : std::string(line.message.substr(0, at));
}

void take_region_line(const Line& line, std::vector<RegionLog>& regions) {
    const std::string path = opened_path(line);
    if (const auto size = unsigned_after(line.message, "size:")) {
        regions.emplace_back();
        regions.back().announced = *size;
    } else if (starts_with(line.message, "ERR! ioctl fail")) {
        regions.emplace_back();
        regions.back().failure = std::string(line.whole);
    } else if (regions.empty()) {
        return;
    } else if (!path.empty()) {
        regions.back().path = path;
    } else if (ends_with(line.message, " bytes)")) {
        regions.back().saved = unsigned_after(line.message, "Complete! (");
    } else if (line.fails()) {
        regions.back().failure = std::string(line.whole);
    }
}

void take_step_line(const Line& line, std::vector<StepLog>& steps) {
    const auto number = number_after(line.message, "[step ");
    if (!number) return;
    if (const auto frames = unsigned_after(line.message, "num_frames = ")) {
        steps.push_back({*number, *frames, {}});
    } else if (const auto saved = unsigned_after(line.message, "saved = ")) {
        if (!steps.empty() && steps.back().number == *number) steps.back().saved = *saved;
    }
}

void take_version_line(const Line& line, CrashLog& log) {
    constexpr std::string_view kDriver = "LNKM version: ";
    constexpr std::string_view kDaemon = "Radio Vault Daemon (RVD) version: ";
    if (starts_with(line.message, kDriver))
        log.driver_version = std::string(line.message.substr(kDriver.size()));
    if (starts_with(line.message, kDaemon))
        log.daemon_version = std::string(line.message.substr(kDaemon.size()));
}

// The daemon says these to the crash text log as well.
bool is_said_to_crash_log(const Line& line) {
    const std::string_view tag = line.tag, text = line.message;
    if (tag == "std_dump_write_versions" || tag == "std_ul_recv_data" ||
        tag == "std_dump_receive_cp_dump")
        return true;
    if (tag == "std_dump_prepare_args") return text.find(".log open") != std::string_view::npos;
    if (tag == "get_log_dump") return !starts_with(text, "name:");
    if (tag == "std_ul_recv_info") return text == "DUMP INFO saved" || line.fails();
    if (tag == "std_ul_rx_frame" || tag == "std_dump_trigger_kernel_panic") return line.fails();
    return tag == "dump" &&
           (text == "ERR! std_dump_receive_cp_dump fail" || text == "ERR! ostra_dump_boot fail" ||
            text == "ERR! std_dump_trigger_kernel_panic fail");
}

void take_reason_line(const Line& line, KernelLog& log) {
    constexpr std::string_view kSentence = "CP CRASH";
    if (starts_with(line.message, kSentence))
        log.sentence = std::string(line.message.substr(kSentence.size()));
    if (const auto owner = number_after(line.message, "reason owner:")) log.owner = *owner;
}

// The step of the dump says last that it failed, after what made it fail.
void take_failure(const Line& line, KernelLog& log, std::string& cause) {
    if (line.tag == "dump" && line.message == "Prepare CP crash dump") {
        cause.clear();
        log.failure.clear();
        log.failed_step.clear();
    }
    if (!line.fails() || line.tag == "get_log_dump") return;
    if (line.tag != "dump") {
        if (cause.empty()) cause = std::string(line.whole);
        return;
    }
    log.failure = cause;
    log.failed_step = std::string(line.whole);
}

bool begins_dump(const Line& line, const CrashLog& so_far) {
    return line.tag == "std_dump_write_versions" &&
           (so_far.lines.empty() ||
            so_far.lines.back().find("std_dump_write_versions") == std::string::npos);
}

void begin_dump(KernelLog& log) {
    log.dump = {};
    log.dump_from_the_start = true;
    log.sentence.clear();
    log.owner.reset();
    log.dump_size.reset();
}

// What was last heard of a boot before a crash.
struct Boot {
    KernelTime done = kNoTime;
    std::string failed_step;
};

void take_event_line(const Line& line, KernelLog& log, Boot& boot) {
    if (line.message == "Call boot start") boot.failed_step.clear();
    if (line.message == "Boot up process done!!!") boot.done = line.at;
    if (line.fails() && (line.tag == "boot" || line.tag == "ostra_normal_boot"))
        boot.failed_step = std::string(line.message);
    const bool booting = line.message == "CP Crash when CP booting..";
    if (line.message != "CP status CRASH" && !booting) return;
    log.event = line.at;
    log.booted = booting ? kNoTime : boot.done;
    log.boot_step = booting ? boot.failed_step : "";
    log.regions.clear();
}

}  // namespace

uint64_t CrashLog::saved() const {
    uint64_t total = 0;
    for (const StepLog& step : steps)
        total += step.saved.value_or(0);
    return total;
}

void CrashLog::take(const Line& line) {
    lines.emplace_back(line.whole);
    if (line.tag == "get_log_dump") return take_region_line(line, regions);
    if (line.tag == "std_dump_write_versions") take_version_line(line, *this);
    if (line.tag == "std_ul_recv_data") take_step_line(line, steps);
    if (line.tag == "std_dump_prepare_args") {
        if (const std::string path = opened_path(line); !path.empty()) opened.push_back(path);
    }
    reason_saved |= line.message == "DUMP INFO saved";
    dump_saved |= line.message == "DUMP DATA saved";
    // A region that fails is left, so a link that failed under one says nothing of the dump.
    if (!line.fails() || line.tag == "std_dump_write_versions") return;
    if (line.tag == "std_ul_rx_frame" && !reason_saved && !regions.empty()) return;
    if (first_failure.empty()) first_failure = std::string(line.whole);
    for (const char* key : {"seq# ", "seqn "}) {
        if (const auto number = unsigned_after(line.message, key)) frame = *number;
    }
}

CrashLog read_crash_log(std::string_view text) {
    CrashLog log;
    const size_t end = text.rfind('\n');
    each_line(Sink::kCrashLog, text.substr(0, end == std::string_view::npos ? 0 : end + 1),
              [&](const Line& line) {
                  log.take(line);
                  log.line_ends.push_back(static_cast<size_t>(line.whole.data() - text.data()) +
                                          line.whole.size() + 1);
              });
    return log;
}

KernelLog read_kernel_log(std::string_view text) {
    KernelLog log;
    Boot boot;
    std::string cause;
    each_line(Sink::kKernel, text, [&](const Line& line) {
        take_event_line(line, log, boot);
        if (begins_dump(line, log.dump)) begin_dump(log);
        if (line.tag == "get_log_dump") cause.clear();
        take_failure(line, log, cause);
        if (line.tag == "make_cp_crash_reason") take_reason_line(line, log);
        if (const auto size = unsigned_after(line.message, "dump_size = ")) log.dump_size = *size;
        if (line.tag == "get_log_dump" && starts_with(line.message, "name:")) {
            const std::string_view name = line.message.substr(5);
            log.regions.emplace_back(name.substr(0, name.find(' ')));
        }
        if (is_said_to_crash_log(line)) log.dump.take(line);
    });
    log.last = last_kernel_time(text);
    return log;
}

std::optional<uint64_t> read_records_size(Sink sink, std::string_view text) {
    std::optional<uint64_t> size;
    each_line(sink, text, [&](const Line& line) {
        if (line.tag == "open_srinfo_file") {
            if (const auto before = number_after(line.message, "srinfo log size : "))
                size = *before > kRecordsRotation ? 0 : static_cast<uint64_t>(*before);
        } else if (line.tag == "write_srinfo_file" && size) {
            if (const auto record = unsigned_after(line.message, "size=("))
                *size += record_length(*record);
        }
    });
    return size;
}

KernelTime last_kernel_time(std::string_view text) {
    while (!text.empty()) {
        const size_t start = text.rfind('\n', text.size() - 1);
        const size_t from = start == std::string_view::npos ? 0 : start + 1;
        const KernelTime time = kernel_time(text.substr(from));
        if (time != kNoTime || from == 0) return time;
        text = text.substr(0, start);
    }
    return kNoTime;
}

}  // namespace rvd::report

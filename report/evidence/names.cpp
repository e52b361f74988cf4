#include "report/evidence/names.h"

#include <time.h>

#include <algorithm>
#include <iomanip>
#include <iterator>
#include <sstream>
#include <vector>

#include "report/parse/lines.h"

namespace rvd::report {

namespace {

constexpr std::string_view kModems[] = {"umts", "nr"};

// The time in a file's name: crash files carry a minute, saved kernel logs a second.
constexpr char kMinute[] = "_%Y%m%d-%H%M.log";
constexpr char kSecond[] = "_%Y%m%d%H%M_%S.log";

struct Form {
    Kind kind;
    const char* name;     // for people
    std::string_view of;  // the name's constant part, '%' for the modem and '?' for the detail
    const char* stamp;
};
constexpr Form kForms[] = {
        {Kind::kCrashLog, "crash log", "cpcrash_%_log", kMinute},
        {Kind::kInfo, "crash reason", "cpcrash_%_info_?", kMinute},
        {Kind::kDump, "dump", "cpcrash_%_dump", kMinute},
        {Kind::kRegion, "region", "cpcrash_?_dump_%", kMinute},
        {Kind::kKernelBefore, "kernel log before", "cpcrash_%_klog_before", kSecond},
        {Kind::kKernelAfter, "kernel log after", "cpcrash_%_klog_after", kSecond},
        {Kind::kKernelFail, "kernel log of a failed dump", "cpcrash_%_dump_fail", kSecond},
        {Kind::kKernelDmesg, "kernel log after", "dmesg", kSecond},
        {Kind::kKernelOnly, "kernel log of a reset", "rvd_only_%", kSecond},
        {Kind::kKernelBoot, "kernel log before a boot", "cp_boot_%", kSecond},
        {Kind::kKernelBooted, "kernel log after a boot", "cp_boot_done_%", kSecond},
        {Kind::kRecords, "silent-reset records", "sr_info_%", ""},
        {Kind::kOlderRecords, "older silent-reset records", ".sr_info_%.bak", ""},
        {Kind::kWaitingRecord, "waiting silent-reset record", "last_sr_info_%", ""},
};

const Form* form_of(Kind kind) {
    const auto form = std::find_if(std::begin(kForms), std::end(kForms),
                                   [&](const Form& known) { return known.kind == kind; });
    return form == std::end(kForms) ? nullptr : form;
}

std::string filled(std::string_view form, char mark, std::string_view with) {
    std::string name(form);
    const size_t at = name.find(mark);
    return at == std::string::npos ? name : name.replace(at, 1, with);
}

std::string formatted(DeviceTime time, const char* format) {
    const time_t seconds = time;
    tm parts = {};
    gmtime_r(&seconds, &parts);
    std::ostringstream text;
    text << std::put_time(&parts, format);
    return text.str();
}

// The time that is written so, and not only much like it as strptime() would take it.
std::optional<DeviceTime> time_in(const std::string& text, const char* format) {
    tm parts = {};
    if (strptime(text.c_str(), format, &parts) == nullptr) return std::nullopt;
    const DeviceTime time = timegm(&parts);
    if (formatted(time, format) != text) return std::nullopt;
    return time;
}

// A form's name for one modem: what is before the detail and behind it, and how long the time is.
struct Pattern {
    const Form* form;
    std::string_view modem;
    std::string head, tail;
    bool has_detail;
    size_t stamp_length;
};

std::vector<Pattern> all_patterns() {
    std::vector<Pattern> patterns;
    for (const Form& form : kForms) {
        for (const std::string_view modem : kModems) {
            const bool named = form.of.find('%') != std::string_view::npos;
            const std::string name = filled(form.of, '%', modem);
            const size_t detail = std::min(name.find('?'), name.size());
            patterns.push_back({&form, named ? modem : "", name.substr(0, detail),
                                name.substr(std::min(detail + 1, name.size())),
                                detail < name.size(), formatted(0, form.stamp).size()});
        }
    }
    return patterns;
}

bool is_word(std::string_view text) {
    return !text.empty() && text.size() <= 31 && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
    });
}

bool fits(std::string_view name, const Pattern& pattern, Name& out) {
    const size_t least = pattern.head.size() + pattern.tail.size() + pattern.stamp_length;
    if (name.size() < least || !starts_with(name, pattern.head)) return false;
    const std::string_view detail = name.substr(pattern.head.size(), name.size() - least);
    if (pattern.has_detail ? !is_word(detail) : !detail.empty()) return false;
    const std::string_view end = name.substr(pattern.head.size() + detail.size());
    if (!starts_with(end, pattern.tail)) return false;
    const auto time = time_in(std::string(end.substr(pattern.tail.size())), pattern.form->stamp);
    if (!time) return false;
    out = {pattern.form->kind, std::string(pattern.modem), std::string(detail)};
    if (pattern.stamp_length > 0) out.time = *time;
    out.to_the_minute = pattern.form->stamp == kMinute;
    return true;
}

// What a radio log is called: the virtual phone's, a logcat's, a bug report's.
bool is_android_log(std::string_view name) {
    return name == "android.log" || name.find("logcat") != std::string_view::npos ||
           (starts_with(name, "bugreport") && ends_with(name, ".txt"));
}

}  // namespace

Name parse_name(std::string_view name) {
    static const std::vector<Pattern> patterns = all_patterns();
    Name found;
    for (const Pattern& pattern : patterns) {
        if (fits(name, pattern, found)) return found;
    }
    if (is_android_log(name)) found.kind = Kind::kAndroidLog;
    return found;
}

std::string name_of(Kind kind, std::string_view modem, std::string_view detail) {
    const Form* form = form_of(kind);
    if (form == nullptr) return kind_name(kind);
    return filled(filled(form->of, '%', modem), '?', detail) +
           (*form->stamp == '\0' ? "" : "_*.log");
}

const char* kind_name(Kind kind) {
    if (kind == Kind::kAndroidLog) return "Android log";
    const Form* form = form_of(kind);
    return form == nullptr ? "unknown" : form->name;
}

bool is_kernel_log(Kind kind) {
    return kind >= Kind::kKernelBefore && kind <= Kind::kKernelBooted;
}

bool is_of_a_crash(Kind kind) {
    return kind <= Kind::kKernelDmesg;
}

bool ends_a_dump(Kind kind) {
    return kind >= Kind::kKernelAfter && kind <= Kind::kKernelDmesg;
}

std::string format_time(DeviceTime time, bool to_the_minute) {
    return formatted(time, to_the_minute ? "%Y-%m-%d %H:%M" : "%Y-%m-%d %H:%M:%S");
}

std::optional<DeviceTime> parse_time(std::string_view text) {
    for (const char* format : {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M",
                               "%Y-%m-%dT%H:%M:%S"}) {
        if (const auto time = time_in(std::string(text), format)) return time;
    }
    return std::nullopt;
}

}  // namespace rvd::report

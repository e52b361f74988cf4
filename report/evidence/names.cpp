#include "report/evidence/names.h"

#include <fmt/format.h>
#include <stdio.h>
#include <time.h>

#include <algorithm>

#include "report/parse/lines.h"

namespace rvd::report {

namespace {

constexpr std::string_view kModems[] = {"umts", "nr"};

struct SavedKind {
    Kind kind;
    const char* name;     // for people
    std::string_view of;  // the name's constant part, '%' for the modem and '?' for the detail
};

// Crash files carry a minute, saved kernel logs a second.
constexpr SavedKind kMinuteKinds[] = {
        {Kind::kCrashLog, "crash log", "cpcrash_%_log"},
        {Kind::kInfo, "crash reason", "cpcrash_%_info_?"},
        {Kind::kDump, "dump", "cpcrash_%_dump"},
        {Kind::kRegion, "region", "cpcrash_?_dump_%"},
};
constexpr SavedKind kSecondKinds[] = {
        {Kind::kKernelBefore, "kernel log before", "cpcrash_%_klog_before"},
        {Kind::kKernelAfter, "kernel log after", "cpcrash_%_klog_after"},
        {Kind::kKernelFail, "kernel log of a failed dump", "cpcrash_%_dump_fail"},
        {Kind::kKernelDmesg, "kernel log after", "dmesg"},
        {Kind::kKernelOnly, "kernel log of a reset", "rvd_only_%"},
        {Kind::kKernelBoot, "kernel log before a boot", "cp_boot_%"},
        {Kind::kKernelBooted, "kernel log after a boot", "cp_boot_done_%"},
};
constexpr SavedKind kPlainKinds[] = {
        {Kind::kRecords, "silent-reset records", "sr_info_%"},
        {Kind::kOlderRecords, "older silent-reset records", ".sr_info_%.bak"},
        {Kind::kWaitingRecord, "waiting silent-reset record", "last_sr_info_%"},
};

std::optional<int> digits(std::string_view text) {
    int value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + (c - '0');
    }
    return value;
}

std::optional<DeviceTime> civil(std::string_view date, std::string_view hour,
                                std::string_view minute, std::string_view second) {
    const auto year = digits(date.substr(0, 4)), month = digits(date.substr(4, 2)),
               day = digits(date.substr(6, 2)), h = digits(hour), m = digits(minute),
               s = digits(second);
    if (!year || !month || !day || !h || !m || !s) return std::nullopt;
    if (*month < 1 || *month > 12 || *day < 1 || *day > 31 || *h > 23 || *m > 59 || *s > 60)
        return std::nullopt;
    tm parts = {};
    parts.tm_year = *year - 1900;
    parts.tm_mon = *month - 1;
    parts.tm_mday = *day;
    parts.tm_hour = *h;
    parts.tm_min = *m;
    parts.tm_sec = *s;
    return timegm(&parts);
}

bool is_word(std::string_view text) {
    return !text.empty() && text.size() <= 31 && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
    });
}

// Whether `name` is `form` for one of the modems, and with which detail.
bool fits(std::string_view name, std::string_view form, Name& out) {
    for (const std::string_view modem : kModems) {
        const size_t at = form.find('%');
        std::string filled(form);
        if (at != std::string::npos) filled.replace(at, 1, modem);
        const size_t open = filled.find('?');
        if (open == std::string::npos) {
            if (name != filled) continue;
            out.detail.clear();
        } else {
            const std::string_view head = std::string_view(filled).substr(0, open);
            const std::string_view tail = std::string_view(filled).substr(open + 1);
            if (name.size() <= head.size() + tail.size() || name.substr(0, head.size()) != head ||
                name.substr(name.size() - tail.size()) != tail)
                continue;
            out.detail = name.substr(head.size(), name.size() - head.size() - tail.size());
            if (!is_word(out.detail)) continue;
        }
        out.modem = at == std::string::npos ? "" : modem;
        return true;
    }
    return false;
}

template <size_t N>
bool find_kind(std::string_view name, const SavedKind (&kinds)[N], Name& out) {
    for (const SavedKind& kind : kinds) {
        if (!fits(name, kind.of, out)) continue;
        out.kind = kind.kind;
        return true;
    }
    return false;
}

// "..._20201001-1231"
bool stamped_minute(std::string_view name, Name& out) {
    constexpr size_t kStamp = sizeof("_20201001-1231") - 1;
    if (name.size() <= kStamp) return false;
    const std::string_view stamp = name.substr(name.size() - kStamp);
    if (stamp[0] != '_' || stamp[9] != '-') return false;
    const auto time = civil(stamp.substr(1, 8), stamp.substr(10, 2), stamp.substr(12, 2), "00");
    if (!time || !find_kind(name.substr(0, name.size() - kStamp), kMinuteKinds, out)) return false;
    out.time = *time;
    out.to_the_minute = true;
    return true;
}

// "..._202010011231_17"
bool stamped_second(std::string_view name, Name& out) {
    constexpr size_t kStamp = sizeof("_202010011231_17") - 1;
    if (name.size() <= kStamp) return false;
    const std::string_view stamp = name.substr(name.size() - kStamp);
    if (stamp[0] != '_' || stamp[13] != '_') return false;
    const auto time =
            civil(stamp.substr(1, 8), stamp.substr(9, 2), stamp.substr(11, 2), stamp.substr(14, 2));
    if (!time || !find_kind(name.substr(0, name.size() - kStamp), kSecondKinds, out)) return false;
    out.time = *time;
    return true;
}

// What a radio log is called: the virtual phone's, a logcat's, a bug report's.
bool is_android_log(std::string_view name) {
    return name == "android.log" || name.find("logcat") != std::string::npos ||
           (name.substr(0, 9) == "bugreport" && ends_with(name, ".txt"));
}

const SavedKind* form_of(Kind kind) {
    for (const SavedKind& known : kMinuteKinds) {
        if (known.kind == kind) return &known;
    }
    for (const SavedKind& known : kSecondKinds) {
        if (known.kind == kind) return &known;
    }
    for (const SavedKind& known : kPlainKinds) {
        if (known.kind == kind) return &known;
    }
    return nullptr;
}

}  // namespace

Name parse_name(std::string_view name) {
    Name found;
    if (find_kind(name, kPlainKinds, found)) return found;
    if (ends_with(name, ".log")) {
        const std::string_view stem = name.substr(0, name.size() - 4);
        if (stamped_minute(stem, found) || stamped_second(stem, found)) return found;
    }
    found = {};
    if (is_android_log(name)) found.kind = Kind::kAndroidLog;
    return found;
}

std::string name_of(Kind kind, std::string_view modem, std::string_view detail) {
    const SavedKind* form = form_of(kind);
    if (form == nullptr) return kind_name(kind);
    std::string name(form->of);
    const size_t at = name.find('%');
    if (at != std::string::npos) name.replace(at, 1, modem);
    const size_t open = name.find('?');
    if (open != std::string::npos) name.replace(open, 1, detail);
    return kind == Kind::kRecords || kind == Kind::kOlderRecords || kind == Kind::kWaitingRecord
                   ? name
                   : name + "_*.log";
}

const char* kind_name(Kind kind) {
    if (kind == Kind::kAndroidLog) return "Android log";
    const SavedKind* form = form_of(kind);
    return form == nullptr ? "unknown" : form->name;
}

bool is_kernel_log(Kind kind) {
    return kind >= Kind::kKernelBefore && kind <= Kind::kKernelBooted;
}

bool is_of_a_crash(Kind kind) {
    return kind <= Kind::kKernelDmesg;
}

std::string format_time(DeviceTime time, bool to_the_minute) {
    const time_t seconds = time;
    tm parts = {};
    gmtime_r(&seconds, &parts);
    char text[32];
    strftime(text, sizeof(text), to_the_minute ? "%Y-%m-%d %H:%M" : "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

std::optional<DeviceTime> parse_time(std::string_view text) {
    // 2020-10-01 12:31:17
    std::string whole(text);
    if (whole.size() == 10) whole += " 00:00";
    if (whole.size() == 16) whole += ":00";
    if (whole.size() != 19 || whole[4] != '-' || whole[7] != '-' ||
        (whole[10] != ' ' && whole[10] != 'T') || whole[13] != ':' || whole[16] != ':')
        return std::nullopt;
    const std::string_view view = whole;
    const std::string date = whole.substr(0, 4) + whole.substr(5, 2) + whole.substr(8, 2);
    return civil(date, view.substr(11, 2), view.substr(14, 2), view.substr(17, 2));
}

}  // namespace rvd::report

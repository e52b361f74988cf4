// The phone before anything went wrong: how the daemon was started, the kernel's command line,
// properties, files and room.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

#include "report/scenario/draft.h"

namespace rvd::report {

namespace {

constexpr char kDirectory[] = "/data/vendor/log/rvd";
constexpr int64_t kUsualFreeMb = 20000;  // of the virtual phone

// An option of the daemon's and the line that it logs for it; "%" is its value.
struct Option {
    const char *option, *value;
    std::string_view line;
};
constexpr Option kOptions[] = {
        {"-d", "", "Daemon Mode"},
        {"-t", "tq720", "TQ720 modem"},
        {"-t", "vk880", "VK880 modem"},
        {"-t", "none", "Unknown modem"},
        {"-b", "d", "boot dpram link"},
        {"-b", "s", "boot spi link"},
        {"-b", "h", "boot hsic link"},
        {"-b", "c", "boot C2C link"},
        {"-b", "u", "boot uart link"},
        {"-b", "p", "boot pld link"},
        {"-b", "m", "boot SHMEM link"},
        {"-b", "l", "boot LLI link"},
        {"-m", "c", "main C2C link"},
        {"-m", "m", "main SHMEM link"},
        {"-m", "l", "main LLI link"},
        {"-m", "e", "main PCIE link"},
        {"-o", "r", "run with root"},
        {"-o", "v", "verify vss"},
        {"-o", "s", "reinit vss"},
        {"-o", "t", "EHCI Tegra"},
        {"-o", "u", "Upload Test"},
        {"-b", "%", "ERR! invalid boot link "},
        {"-m", "%", "ERR! invalid main link "},
        {"-o", "%", "ERR! invalid option "},
        {"-s", "%", "SRINFO type: "},
        {"-s", "%", "invalid srinfo type: "},
        {"-n", "%", "set nv partition : "},
        {"-B", "%", "set boot_node : "},
        {"-D", "%", "set dump_node : "},
        {"-z", "", "WARNING! invalid option "},
};

void add_option(const std::string& message, std::vector<std::string>& args) {
    constexpr std::string_view kPartition = "set partition number : ";
    constexpr std::string_view kNumbered = "partition path : /dev/block/mmcblk0p";
    if (starts_with(message, kPartition))
        args.insert(args.end(), {"-P", behind(message, kPartition)});
    if (starts_with(message, kNumbered) && args.size() > 1) args[args.size() - 2] = "-p";
    for (const Option& known : kOptions) {
        if (!starts_with(message, known.line)) continue;
        args.emplace_back(known.option);
        if (*known.value == '%')
            args.emplace_back(behind(message, known.line));
        else if (*known.value != '\0')
            args.emplace_back(known.value);
        return;
    }
}

// The options of the daemon's first start; without any it would only print its usage.
std::vector<std::string> options(const Events& events) {
    std::vector<std::string> args;
    const size_t second = first_said(events, "main", "Start Radio",
                                     first_said(events, "main", "Start Radio") + 1);
    for (size_t at = 0; at < second; at++) {
        if (events[at].step == "parseArgs") add_option(events[at].message, args);
    }
    if (args.empty()) args = {"-T", "x"};
    if (events.back().step == "parseArgs" && args.back() != "none") args.emplace_back("-h");
    return args;
}

bool is_external(const Draft& draft) {
    return draft["args"].dump().find("vk880") != std::string::npos;
}

std::string prefix(const Draft& draft) {
    return is_external(draft) ? "nr" : "umts";
}

void describe_start(const Events& events, Draft& draft) {
    constexpr std::string_view kFound = "find str ";
    draft["args"] = options(events);
    draft["modem"] = is_external(draft) ? "vk880" : "tq720";
    std::vector<std::string> words;
    for (const Event& event : events) {
        const std::string& message = event.message;
        if (!draft.contains("start") && event.clock >= 0 && event.at != kNoTime)
            draft["start"] = format_time(event.clock - event.at / 1'000'000);
        if (const auto type = number_after(message, "Modem type = "))
            draft["modem"] = *type == 2 ? "vk880" : "tq720";
        if (event.step != "get_cmdline_str") continue;
        const std::string word =
                message.substr(kFound.size(), message.rfind(" form ") - kFound.size());
        if (std::find(words.begin(), words.end(), word) == words.end()) words.push_back(word);
    }
    draft["cmdline"] = fmt::format("{}", fmt::join(words, " "));
}

bool has(const std::string& message, const char* text) {
    return message.find(text) != std::string::npos;
}

bool tells_of_a_crash(const Event& event) {
    return says(event, "main", "CP Crash") || says(event, "main", "forced") ||
           says(event, "status_loop", "get event") || says(event, "status_loop", "/dev/") ||
           event.step == "dump" || event.message.empty();
}

// Around its first boot the daemon saves logs only where the properties speak of one before.
void describe_boot_before(const Events& events, Draft& draft) {
    const char *const kLoop = "CP status_loop start", *const kStart = "Start Radio";
    const size_t booted = first_said(events, "status_loop", kLoop);
    const size_t end =
            std::min(first_said(events, "status_loop", kLoop, booted + 1),
                     first_said(events, "main", kStart, first_said(events, "main", kStart) + 1));
    bool crashed = false;
    for (size_t at = 0; at < end; at++) {
        const Event& event = events[at];
        const bool lost = event.step == "save_logs_thread", first_boot = at < booted;
        crashed |= tells_of_a_crash(event);
        if (has(event.message, "/cp_boot_done_") || (lost && !first_boot))
            draft["properties"]["vendor.rvd.boot_done"] = "1";
        else if (has(event.message, "/cp_boot_") || (lost && first_boot) ||
                 (event.step == "create_directory" && !crashed && first_boot))
            draft["properties"]["vendor.rvd.reset_done"] = "1";
    }
}

void describe_properties(const Events& events, Draft& draft) {
    constexpr std::string_view kSalesCode = "sales_code:";
    const auto said = [&](std::string_view step, std::string_view start) {
        return first_said(events, step, start);
    };
    for (const Event& event : events) {
        if (const auto option = number_after(event.message, "overwritten by prop="))
            draft["properties"]["persist.vendor.rvd.debug_cp_opt"] = std::to_string(*option);
        if (says(event, "check_vtc_sales_code", kSalesCode))
            draft["properties"].emplace("ro.vtc.sales_code", behind(event.message, kSalesCode));
    }
    if (said("boot", "NV validation TIMEOUT") < events.size())
        draft["properties"]["vendor.rvd.rfs_check_done"] = "0";
    if (said("load_cp_images", "stage[") < said("boot", "Request Security"))
        draft["properties"]["vendor.rvd.first_xmit_done"] = "1";
    const size_t no_reset = said("", "CP_DEBUG NORESET");
    if (no_reset < said("", "CP_DEBUG NORESET prop set") &&
        no_reset < said("status_loop", "CP status_loop start"))
        draft["properties"]["vendor.rvd.cpboot"] = "1";
    describe_boot_before(events, draft);
}

// A silent-reset record that waits since before the first start.
void describe_waiting_record(const Events& events, const std::string& prefix, Draft& files) {
    const std::string path = fmt::format("{}/err/last_sr_info_{}", kDirectory, prefix);
    const size_t restored =
            first_said(events, "restore_srinfo", "",
                       first_said(events, "store_srinfo", "srinfo_last file exist"));
    if (restored >= first_said(events, "write_srinfo_last", "store to")) return;
    const std::string& message = events[restored].message;
    if (message == "last_sr_info file read fail") files[path] = "";
    if (starts_with(message, "done = ")) files[path] = "x";
    if (starts_with(message, "sr_info_last open")) files[path + "/"] = "";
}

void describe_files(const Events& events, Draft& draft) {
    constexpr char kFactory[] = "/efs/factory.prop", kRecords[] = "srinfo log size : ";
    const std::string made = fmt::format("log path ({}) created", kDirectory);
    bool is_made = false, counted = false;
    Draft files;
    for (const Event& event : events) {
        const std::string& message = event.message;
        if (const auto count = number_after(message, "sim_count: "))
            files[kFactory] = fmt::format("SIMSLOTCOUNT={}\n", *count);
        if (says(event, "get_factory_prop", "can't find")) files[kFactory] = "x";
        if (says(event, "getNvFd", "ERR! no NV(")) draft["firmware"]["nv_size"] = -1;
        if (says(event, "create_srinfo_directory", "(/"))
            files[message.substr(1, message.find(')') - 1)] = "";
        is_made |= ends_with(message, made);
        const bool found = says(event, "check_log_directory", "Block size") ||
                           ends_with(message, "changed(0)") || ends_with(message, "/err) created");
        if (found && !is_made) files[std::string(kDirectory) + "/"] = "";
        const auto size = number_after(message, kRecords);
        if (size && *size > 0 && !counted)
            draft["phone"]["fillers"][fmt::format("{}/sr_info_{}", kDirectory, prefix(draft))] =
                    *size;
        counted |= size.has_value();
    }
    describe_waiting_record(events, prefix(draft), files);
    draft["phone"]["files"] = files;
}

void describe_room(const Events& events, Draft& draft) {
    Draft& phone = draft["phone"];
    bool checked = false, grouped = false;
    for (const Event& event : events) {
        const bool log = event.step == "check_log_directory";
        const auto megabytes = number_after(event.message, log ? "freespace " : "(free blocks) = ");
        if (megabytes && *megabytes != kUsualFreeMb)
            phone["free"].emplace(event.message.substr(0, event.message.find(':')), *megabytes);
        checked |= log && megabytes;
        grouped |= has(event.message, " gid(");
    }
    if (checked && !grouped) phone["log_group"] = false;
}

}  // namespace

void describe_phone(const Events& events, Draft& draft) {
    describe_start(events, draft);
    describe_properties(events, draft);
    describe_files(events, draft);
    describe_room(events, draft);
}

}  // namespace rvd::report

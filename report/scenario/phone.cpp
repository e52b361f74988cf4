// The phone before anything went wrong: options, debug level, table of contents, what the modem has
// to give.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <numeric>

#include "report/scenario/draft.h"

namespace rvd::report {

namespace {

constexpr uint64_t kLongestPartition = 1u << 30;
constexpr int64_t kUsualFreeMb = 20000;  // of the virtual phone

std::string_view behind(const std::string& message, std::string_view start) {
    return std::string_view(message).substr(start.size());
}

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

class Phone {
  public:
    Phone(const Report& report, Draft& draft) : report_(report), draft_(draft) {}

    void run(const Events& events) {
        for (size_t at = 0; at < events.size(); at++) {
            const Event& event = events[at];
            if (says(event, "main", "Start Radio")) starts_++;
            if (event.step == "parseArgs" && starts_ <= 1) option(event.message);
            if (event.step == "get_cmdline_str") word(event.message);
            table(event);
            partition(event);
            modem(event);
            dump(event);
            property(event);
            saved_before(event);
            room(event);
            begin(event);
            last_step_ = event.step;
        }
        finish();
    }

  private:
    void option(const std::string& message) {
        constexpr std::string_view kPartition = "set partition number : ";
        constexpr std::string_view kNumbered = "partition path : /dev/block/mmcblk0p";
        if (starts_with(message, kPartition))
            draft_.args.insert(draft_.args.end(), {"-P", std::string(behind(message, kPartition))});
        if (starts_with(message, kNumbered) && draft_.args.size() > 1)
            draft_.args[draft_.args.size() - 2] = "-p";
        for (const Option& known : kOptions) {
            if (!starts_with(message, known.line)) continue;
            draft_.args.emplace_back(known.option);
            if (*known.value == '%')
                draft_.args.emplace_back(behind(message, known.line));
            else if (*known.value != '\0')
                draft_.args.emplace_back(known.value);
            return;
        }
    }

    void word(const std::string& message) {
        constexpr std::string_view kFound = "find str ";
        const std::string word(
                message.substr(kFound.size(), message.rfind(" form ") - kFound.size()));
        if (std::find(draft_.cmdline.begin(), draft_.cmdline.end(), word) == draft_.cmdline.end())
            draft_.cmdline.push_back(word);
    }

    void partition(const Event& event) {
        if (event.step != "load_cp_image_by_stage") return;
        if (const auto place = number_after(event.message, "b_off=")) image_ = *place;
        if (const auto count = number_after(event.message, "ERR! read "))
            partition_end_ = std::max(partition_end_, static_cast<uint64_t>(image_ + *count));
    }

    // "toc[1].name = BOOT, b_off=0x00000200, m_off=0x00002000, size=0x00000064"
    void table(const Event& event) {
        const std::string& message = event.message;
        if (event.step != "prepare_boot_args") return;
        if (const auto count = number_after(message, "Total TOC count is "))
            draft_.firmware["toc_count"] = fmt::format("{}", static_cast<uint32_t>(*count));
        if (says(event, event.step, "ERR! invalid TOC: No TOC")) entries_[0] = "NONE";
        if (const auto last = number_after(message, "ERR! last stage ")) {
            for (int64_t i = 0; i <= std::min<int64_t>(*last, 15); i++)
                entries_.emplace(i, i == 0 ? "TOC" : i == 1 ? "BOOT" : fmt::format("A{}", i));
        }
        const auto index = number_after(message, "oc[") ? number_after(message, "oc[")
                                                        : number_after(message, "OC[");
        const size_t name = message.find("name = ");
        if (!index || name == std::string::npos) return;
        const auto number = [&](const char* key) {
            return static_cast<uint32_t>(number_after(message, key).value_or(0));
        };
        std::string entry =
                message.substr(name + 7, message.find(',', name) - name - 7) +
                fmt::format(":{}@{}>0x{:X}", number("size="), number("b_off="), number("m_off="));
        if (number_after(message, "crc=")) entry += fmt::format("#0x{:X}", number("crc="));
        entries_.emplace(*index, std::move(entry));
        // Nothing is as long: the partition ends before what the table says of it.
        const uint64_t end = uint64_t{number("b_off=")} + number("size=");
        if (end < kLongestPartition) partition_end_ = std::max(partition_end_, end);
        nonsense_ |= end >= kLongestPartition;
    }

    void modem(const Event& event) {
        constexpr std::string_view kVersion = "LNKM version: ", kSentence = "CP CRASH";
        if (says(event, "std_dump_write_versions", kVersion))
            draft_.driver["version"] = quoted(behind(event.message, kVersion));
        if (event.step == "make_cp_crash_reason") {
            if (const auto owner = number_after(event.message, "reason owner:"))
                draft_.driver["owner"] = fmt::format("{}", *owner);
            if (starts_with(event.message, kSentence)) sentence_ = behind(event.message, kSentence);
        }
        if (says(event, "get_log_dump", "name:"))
            region_ = event.message.substr(5, event.message.find(' ') - 5);
        if (const auto size = number_after(event.message, "size:");
            size && event.step == "get_log_dump")
            regions_.emplace(region_, static_cast<uint32_t>(*size));
        const bool ended = event.step == "get_log_dump" &&
                           event.message.find("std_ul_rx_frame fail (ret -5)") != std::string::npos;
        if (ended) short_[region_] = saved_size(report_, Kind::kRegion, region_);
        record(event);
    }

    // A record is known by its log, or by its length alone.
    void record(const Event& event) {
        constexpr std::string_view kInvalid = "Crash info string was invalid(";
        if (says(event, "alloc_srinfo", kInvalid)) {
            const auto mark = number_after("0x" + std::string(behind(event.message, kInvalid)), "");
            if (!mark || *mark == 0) return;
            std::string text = "{\"";
            for (unsigned shift = 0; shift < 32; shift += 8)
                text += static_cast<char>(*mark >> shift);
            draft_.driver["srinfo"] = quoted(text);
        }
        if (says(event, "create_srinfo_directory", "") || says(event, "create_srinfo_last", ""))
            draft_.driver.emplace("srinfo", quoted(R"({"JVER":1})"));
        const auto brace = number_after(event.message, "store to ascii text (");
        if (brace) keep_record(static_cast<size_t>(*brace) + 1);
        const auto size = number_after(event.message, "store to hex ascii text size=(");
        if (size && *size >= 16) keep_record(static_cast<size_t>(*size) - 16);
    }

    void keep_record(size_t length) {
        std::string text = R"({"JVER":1})";
        for (const RecordFile& file : report_.records) {
            for (const Record& record : file.content.records) {
                if (record.damage.empty() && record.text().size() <= length) text = record.text();
            }
        }
        text.insert(text.size() - 1, std::max(length, text.size()) - text.size(), ' ');
        draft_.driver["srinfo"] = quoted(text);
    }

    void dump(const Event& event) {
        if (event.step == "std_ul_recv_info") {
            for (const char* key : {"dump_size = ", "num_steps = ", "reason_len = "}) {
                if (const auto value = number_after(event.message, key))
                    announced_[key] = static_cast<uint32_t>(*value);
            }
        }
        if (says(event, "std_dump_receive_cp_dump", "ERR! saved ")) differs_ = true;
        if (event.step != "std_ul_recv_data") return;
        const auto step = number_after(event.message, "[step ");
        const auto frames = number_after(event.message, "num_frames = ");
        const auto saved = number_after(event.message, "] saved = ");
        if (step && frames) steps_.emplace(*step, static_cast<uint64_t>(*frames) * 2048);
        if (step && saved) steps_[*step] = static_cast<uint64_t>(*saved);
    }

    void property(const Event& event) {
        constexpr std::string_view kSalesCode = "sales_code:";
        if (const auto option = number_after(event.message, "overwritten by prop="))
            draft_.properties["persist.vendor.rvd.debug_cp_opt"] = fmt::format("{}", *option);
        if (says(event, "check_vtc_sales_code", kSalesCode))
            draft_.properties.emplace("ro.vtc.sales_code", behind(event.message, kSalesCode));
        if (says(event, "boot", "NV validation TIMEOUT"))
            draft_.properties["vendor.rvd.rfs_check_done"] = "0";
        if (says(event, "load_cp_images", "stage[") && !loaded_)
            draft_.properties["vendor.rvd.first_xmit_done"] = "1";
        loaded_ |= says(event, "boot", "Request Security");
        if (event.message == "CP_DEBUG NORESET" && boots_ == 0 && !no_reset_set_)
            draft_.properties["vendor.rvd.cpboot"] = "1";
        no_reset_set_ |= event.message == "CP_DEBUG NORESET prop set";
        if (says(event, "status_loop", "CP status_loop start")) boots_++;
        if (boots_ <= 1 && starts_ <= 1) background(event);
    }

    // Around its first boot the daemon saves logs only where the properties speak of one before.
    void background(const Event& event) {
        const bool lost = event.step == "save_logs_thread";
        if (event.message.find("/cp_boot_done_") != std::string::npos || (lost && boots_ == 1))
            draft_.properties["vendor.rvd.boot_done"] = "1";
        else if (event.message.find("/cp_boot_") != std::string::npos || (lost && boots_ == 0))
            draft_.properties["vendor.rvd.reset_done"] = "1";
        crashed_ |= says(event, "main", "CP Crash") || says(event, "main", "forced") ||
                    says(event, "status_loop", "get event") ||
                    says(event, "status_loop", "/dev/") || event.step == "dump" ||
                    event.message.empty();
        if (event.step == "create_directory" && !crashed_ && boots_ == 0)
            draft_.properties["vendor.rvd.reset_done"] = "1";
    }

    // Files that the daemon found.
    void saved_before(const Event& event) {
        const std::string directory = "/data/vendor/log/rvd";
        if (says(event, "get_factory_prop", "sim_count: ")) {
            const auto count = number_after(event.message, "sim_count: ").value_or(0);
            draft_.files["/efs/factory.prop"] =
                    std::string("SIMSLOTCOUNT=") + static_cast<char>(count + '0') + "\n";
        }
        if (says(event, "get_factory_prop", "can't find")) draft_.files["/efs/factory.prop"] = "x";
        if (says(event, "getNvFd", "ERR! no NV(")) draft_.firmware["nv_size"] = "-1";
        if (says(event, "write_srinfo_last", "store to")) stored_ = true;
        if (says(event, "store_srinfo", "srinfo_last file exist") && !stored_) waiting_ = true;
        if (event.step == "restore_srinfo" && waiting_ && !stored_) {
            const std::string path = directory + "/err/last_sr_info_" + prefix();
            if (event.message == "last_sr_info file read fail") draft_.files[path] = "";
            if (starts_with(event.message, "done = ")) draft_.files[path] = "x";
            if (starts_with(event.message, "sr_info_last open")) draft_.files[path + "/"] = "";
            stored_ = true;
        }
        const auto size = number_after(event.message, "srinfo log size : ");
        if (size && !log_seen_ && *size > 0)
            draft_.phone["fillers"] =
                    fmt::format("{{ \"{}/sr_info_{}\" = {} }}", directory, prefix(), *size);
        log_seen_ |= size.has_value();
        if (says(event, "create_srinfo_directory", "(/"))
            draft_.files[event.message.substr(1, event.message.find(')') - 1)] = "";
        if (ends_with(event.message, "log path (" + directory + ") created")) made_ = true;
        const bool found = says(event, "check_log_directory", "Block size") ||
                           ends_with(event.message, "changed(0)") ||
                           ends_with(event.message, "/err) created");
        if (found && !made_) draft_.files[directory + "/"] = "";
    }

    void room(const Event& event) {
        const bool log = event.step == "check_log_directory";
        const auto free = log ? number_after(event.message, "freespace ")
                              : number_after(event.message, "(free blocks) = ");
        if (free && *free != kUsualFreeMb)
            free_.emplace(event.message.substr(0, event.message.find(':')), *free);
        checked_ |= log && free;
        grouped_ |= event.message.find(" gid(") != std::string::npos;
    }

    void begin(const Event& event) {
        if (draft_.start.empty() && event.clock >= 0 && event.at != kNoTime)
            draft_.start = format_time(event.clock - event.at / 1'000'000);
        if (const auto type = number_after(event.message, "Modem type = "))
            draft_.modem = *type == 2 ? "vk880" : "tq720";
        const bool uploads = ends_with(event.message, "Go to UPLOAD mode");
        // Behind a panic comes the device's start, if anything.
        const bool goes_on = uploading_ && event.step != "get_cmdline_str" &&
                             !event.device_started && event.step != "check_debug_level" &&
                             event.step != "check_debug_cp_opt" && !event.failure;
        if (goes_on) draft_.driver["panic"] = quoted("returns");
        uploading_ = uploads;
    }

    std::string prefix() const { return external() ? "nr" : "umts"; }
    bool external() const {
        return std::find(draft_.args.begin(), draft_.args.end(), "vk880") != draft_.args.end();
    }

    void finish() {
        if (draft_.modem.empty()) draft_.modem = external() ? "vk880" : "tq720";
        if (draft_.args.empty()) draft_.args = {"-T", "x"};
        if (last_step_ == "parseArgs" && draft_.args.back() != "none") draft_.args.push_back("-h");
        std::string table;
        for (const auto& [index, entry] : entries_)
            table += (table.empty() ? "" : " ") + entry;
        if (!table.empty()) draft_.firmware["table"] = quoted(table);
        if (nonsense_) draft_.firmware["truncate"] = fmt::format("{}", partition_end_);
        std::string free;
        for (const auto& [path, megabytes] : free_)
            free += fmt::format("{}\"{}\" = {}", free.empty() ? "" : ", ", path, megabytes);
        if (!free.empty()) draft_.phone["free"] = "{ " + free + " }";
        if (checked_ && !grouped_) draft_.phone["log_group"] = "false";
        for (const auto& [name, size] : regions_) {
            const auto cut = short_.find(name);
            draft_.regions[name] =
                    cut == short_.end()
                            ? fmt::format("{{ size = {} }}", size)
                            : fmt::format("{{ size = {}, delivers = {} }}", size, cut->second);
        }
        finish_dump();
    }

    void finish_dump() {
        if (announced_.empty()) return;
        const uint64_t size = announced_["dump_size = "], number = announced_["num_steps = "],
                       length = announced_["reason_len = "];
        std::vector<uint64_t> steps;
        uint64_t sum = 0;
        for (const auto& [step, bytes] : steps_) {
            steps.push_back(bytes);
            sum += bytes;
        }
        while (steps.size() < number && steps.size() < 13)
            steps.push_back(0);
        if (steps.size() > steps_.size() || (!differs_ && sum != size && !steps.empty())) {
            const uint64_t rest = size - std::min(size, sum - steps.back());
            sum += rest - steps.back();
            steps.back() = rest;
        }
        if (steps.empty()) steps.push_back(1);
        draft_.dump["steps"] = fmt::format("[{}]", fmt::join(steps, ", "));
        if (sum != size) draft_.dump["announce_size"] = fmt::format("{}", size);
        if (steps.size() != number) draft_.dump["announce_steps"] = fmt::format("{}", number);
        std::string origin, reason;
        if (take_apart(sentence_, origin, reason)) draft_.driver["reason"] = quoted(reason);
        const size_t colon = origin == "CP" ? reason.find(": ") : std::string::npos;
        std::string text = colon == std::string::npos ? "" : reason.substr(colon + 2);
        const bool announced_other = length == 0 || length > 4096;
        if (announced_other) draft_.dump["announce_reason"] = fmt::format("{}", length);
        text.resize(announced_other ? std::max<size_t>(text.size(), 1) : length, ' ');
        draft_.dump["reason"] = quoted(text);
    }

    const Report& report_;
    Draft& draft_;
    size_t starts_ = 0, boots_ = 0;
    std::map<int64_t, std::string> entries_;
    std::string region_, sentence_, last_step_;
    std::map<std::string, uint64_t> regions_, short_, announced_;
    std::map<int64_t, uint64_t> steps_;
    uint64_t partition_end_ = 0;
    int64_t image_ = 0;
    std::map<std::string, int64_t> free_;
    bool uploading_ = false, crashed_ = false, nonsense_ = false, differs_ = false, loaded_ = false,
         no_reset_set_ = false, stored_ = false, waiting_ = false, log_seen_ = false, made_ = false,
         checked_ = false, grouped_ = false;
};

}  // namespace

void describe_phone(const Events& events, const Report& report, Draft& draft) {
    Phone(report, draft).run(events);
}

}  // namespace rvd::report

// The modem before anything went wrong: its firmware's table of contents, and what it has to give
// at a dump.
#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>

#include "protocol/link.h"
#include "report/scenario/draft.h"

namespace rvd::report {

namespace {

constexpr uint64_t kLongestPartition = 1u << 30;

class Firmware {
  public:
    void take(const Event& event, Draft& draft) {
        if (event.step == "load_cp_image_by_stage") take_load(event.message);
        if (event.step != "prepare_boot_args") return;
        const std::string& message = event.message;
        if (const auto count = unsigned_after(message, "Total TOC count is "))
            draft["firmware"]["toc_count"] = *count;
        if (starts_with(message, "ERR! invalid TOC: No TOC")) entries_[0] = "NONE";
        if (const auto last = number_after(message, "ERR! last stage ")) {
            for (int64_t i = 0; i <= std::min<int64_t>(*last, 15); i++)
                entries_.emplace(i, i == 0 ? "TOC" : i == 1 ? "BOOT" : fmt::format("A{}", i));
        }
        take_entry(message);
    }

    void finish(Draft& draft) const {
        std::string table;
        for (const auto& [index, entry] : entries_)
            table += (table.empty() ? "" : " ") + entry;
        if (!table.empty()) draft["firmware"]["table"] = table;
        if (nonsense_) draft["firmware"]["truncate"] = end_;
    }

  private:
    // "toc[1].name = BOOT, b_off=0x00000200, m_off=0x00002000, size=0x00000064"
    void take_entry(const std::string& message) {
        const auto index = number_after(message, "oc[") ? number_after(message, "oc[")
                                                        : number_after(message, "OC[");
        const size_t name = message.find("name = ");
        if (!index || name == std::string::npos) return;
        const auto number = [&](const char* key) {
            return unsigned_after(message, key).value_or(0);
        };
        std::string entry =
                message.substr(name + 7, message.find(',', name) - name - 7) +
                fmt::format(":{}@{}>0x{:X}", number("size="), number("b_off="), number("m_off="));
        if (number_after(message, "crc=")) entry += fmt::format("#0x{:X}", number("crc="));
        entries_.emplace(*index, std::move(entry));
        // Nothing is as long: the partition ends before what the table says of it.
        const uint64_t end = uint64_t{number("b_off=")} + number("size=");
        if (end < kLongestPartition) end_ = std::max(end_, end);
        nonsense_ |= end >= kLongestPartition;
    }

    void take_load(const std::string& message) {
        if (const auto place = number_after(message, "b_off=")) image_ = *place;
        if (const auto count = number_after(message, "ERR! read "))
            end_ = std::max(end_, static_cast<uint64_t>(image_ + *count));
    }

    std::map<int64_t, std::string> entries_;
    uint64_t end_ = 0;  // of the partition
    int64_t image_ = 0;
    bool nonsense_ = false;
};

// A silent-reset record is known by its log, or by its length alone.
class SilentReset {
  public:
    SilentReset(const Report& report, Draft& draft) : report_(report), draft_(draft) {}

    void take(const Event& event) {
        constexpr std::string_view kInvalid = "Crash info string was invalid(";
        if (says(event, "alloc_srinfo", kInvalid)) {
            const auto mark = number_after("0x" + behind(event.message, kInvalid), "");
            if (!mark || *mark == 0) return;
            std::string text = "{\"";
            for (unsigned shift = 0; shift < 32; shift += 8)
                text += static_cast<char>(*mark >> shift);
            draft_["driver"]["srinfo"] = text;
        }
        if (says(event, "create_srinfo_directory", "") || says(event, "create_srinfo_last", ""))
            draft_["driver"].emplace("srinfo", R"({"JVER":1})");
        const auto brace = number_after(event.message, "store to ascii text (");
        if (brace) keep_record(static_cast<size_t>(*brace) + 1);
        const auto size = number_after(event.message, "store to hex ascii text size=(");
        if (size && *size >= 16) keep_record(static_cast<size_t>(*size) - 16);
    }

  private:
    void keep_record(size_t length) {
        std::string text = R"({"JVER":1})";
        for (const RecordFile& file : report_.records) {
            for (const Record& record : file.content.records) {
                if (record.damage.empty() && record.text().size() <= length) text = record.text();
            }
        }
        text.insert(text.size() - 1, std::max(length, text.size()) - text.size(), ' ');
        draft_["driver"]["srinfo"] = text;
    }

    const Report& report_;
    Draft& draft_;
};

void describe_regions(const Events& events, const Report& report, Draft& draft) {
    std::string region;
    std::map<std::string, uint32_t> announced;
    std::set<std::string> cut;
    for (const Event& event : events) {
        if (event.step != "get_log_dump") continue;
        const std::string& message = event.message;
        if (starts_with(message, "name:")) region = message.substr(5, message.find(' ') - 5);
        if (const auto size = unsigned_after(message, "size:")) announced.emplace(region, *size);
        if (message.find("std_ul_rx_frame fail (ret -5)") != std::string::npos) cut.insert(region);
    }
    for (const auto& [name, size] : announced) {
        Draft& keys = draft["driver"]["regions"][name] = {{"size", size}};
        if (cut.count(name) > 0) keys["delivers"] = saved_size(report, Kind::kRegion, name);
    }
}

class Dump {
  public:
    void take(const Event& event) {
        constexpr std::string_view kSentence = "CP CRASH";
        if (says(event, "make_cp_crash_reason", kSentence))
            sentence_ = behind(event.message, kSentence);
        if (event.step == "std_ul_recv_info") {
            for (const char* key : {"dump_size = ", "num_steps = ", "reason_len = "}) {
                if (const auto value = unsigned_after(event.message, key)) announced_[key] = *value;
            }
        }
        if (says(event, "std_dump_receive_cp_dump", "ERR! saved ")) differs_ = true;
        if (event.step != "std_ul_recv_data") return;
        const auto step = number_after(event.message, "[step ");
        const auto frames = unsigned_after(event.message, "num_frames = ");
        const auto saved = unsigned_after(event.message, "] saved = ");
        if (step && frames) steps_.emplace(*step, uint64_t{*frames} * UDL_MSS);
        if (step && saved) steps_[*step] = *saved;
    }

    void finish(Draft& draft) {
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
        draft["dump"]["steps"] = steps;
        if (sum != size) draft["dump"]["announce_size"] = size;
        if (steps.size() != number) draft["dump"]["announce_steps"] = number;
        std::string origin, reason;
        if (take_apart(sentence_, origin, reason)) draft["driver"]["reason"] = reason;
        const size_t colon = origin == "CP" ? reason.find(": ") : std::string::npos;
        std::string text = colon == std::string::npos ? "" : reason.substr(colon + 2);
        const bool announced_other = length == 0 || length > 4096;
        if (announced_other) draft["dump"]["announce_reason"] = length;
        text.resize(announced_other ? std::max<size_t>(text.size(), 1) : length, ' ');
        draft["dump"]["reason"] = text;
    }

  private:
    std::string sentence_;
    std::map<std::string, uint64_t> announced_;
    std::map<int64_t, uint64_t> steps_;
    bool differs_ = false;
};

void describe_driver(const Events& events, Draft& draft) {
    constexpr std::string_view kVersion = "LNKM version: ";
    bool uploads = false;
    for (const Event& event : events) {
        if (says(event, "std_dump_write_versions", kVersion))
            draft["driver"]["version"] = behind(event.message, kVersion);
        if (const auto owner = number_after(event.message, "reason owner:"))
            draft["driver"]["owner"] = *owner;
        // Behind a panic comes the device's start, if anything.
        const bool starts = event.step == "get_cmdline_str" || event.device_started ||
                            event.step == "check_debug_level" || event.step == "check_debug_cp_opt";
        if (uploads && !starts && !event.failure) draft["driver"]["panic"] = "returns";
        uploads = ends_with(event.message, "Go to UPLOAD mode");
    }
}

}  // namespace

void describe_modem(const Events& events, const Report& report, Draft& draft) {
    Firmware firmware;
    SilentReset record(report, draft);
    Dump dump;
    for (const Event& event : events) {
        firmware.take(event, draft);
        record.take(event);
        dump.take(event);
    }
    firmware.finish(draft);
    dump.finish(draft);
    describe_regions(events, report, draft);
    describe_driver(events, draft);
}

}  // namespace rvd::report

#include "report/timeline/messages.h"

#include <fmt/format.h>

#include <optional>

#include "protocol/link.h"
#include "report/parse/words.h"
#include "report/print/people.h"

namespace rvd::report {

namespace {

// A line that says what passed between two, and what is shown of it: the text given, or what the
// line itself tells. No step: any that says so.
struct Passage {
    std::string_view step, start;
    Actor from, to;
    const char* shown;
};
constexpr Actor kPhone = Actor::kPhone, kDaemon = Actor::kDaemon, kDriver = Actor::kDriver,
                kLoader = Actor::kLoader;
constexpr Passage kPassages[] = {
        {"main", "Call boot start", kDaemon, kDaemon, "boot"},
        {"main", "Boot up process done", kDaemon, kDaemon, "booted"},
        {"main", "CP Crash when CP booting", kDaemon, kDaemon, "crash in the boot"},
        {"status_loop", "CP status CRASH", kDaemon, kDaemon, "crash"},
        {"status_loop", "Wait event", kDaemon, kDaemon, "waits for an event"},
        {"status_loop", "get event ", kDriver, kDaemon, nullptr},
        {"status_loop", "STATE_CRASH_RESET", kDaemon, kPhone, "waits for the radio layer"},
        {"status_loop", "RILD dosenot", kDaemon, kDriver, "POWER_OFF"},
        {"status_loop", "deviceOff = 1", kPhone, kDaemon, "the device shuts down"},
        {"boot", "NV validation done", kPhone, kDaemon, nullptr},
        {"", "Power on CP", kDaemon, kDriver, "POWER_ON"},
        {"boot", "Power reset", kDaemon, kDriver, "POWER_RESET"},
        {"", "Power reset", kDaemon, kDriver, "POWER_RESET, for a dump"},
        {"dump", "Start CP boot", kDaemon, kDriver, "START_CP_BOOTLOADER, for a dump"},
        {"ostra_dump_boot", "Start CP boot", kDaemon, kDriver, "START_CP_BOOTLOADER, for a dump"},
        {"", "Start CP boot", kDaemon, kDriver, "START_CP_BOOTLOADER"},
        {"", "Complete normal", kDaemon, kDriver, "COMPLETE_NORMAL_BOOTUP"},
        {"get_modem_state", "modem_status", kDriver, kDaemon, nullptr},
        {"std_security_req", "security_req: ", kDaemon, kDriver, nullptr},
        {"make_cp_crash_reason", "CP CRASH", kDriver, kDaemon, nullptr},
        {"get_log_dump", "name:", kDaemon, kDriver, nullptr},
        {"get_log_dump", "size:", kDriver, kDaemon, nullptr},
        {"", "Go to UPLOAD", kDaemon, kDriver, "TRIGGER_KERNEL_PANIC"},
        {"std_ul_recv_info", "dump_size", kLoader, kDaemon, nullptr},
        {"std_ul_recv_info", "DUMP INFO saved", kDaemon, kPhone, "crash reason saved"},
        {"std_dump_receive_cp_dump", "DUMP DATA saved", kDaemon, kPhone, "dump saved"},
        {"restore_srinfo", "done = ", kDaemon, kDriver, "SET_SRINFO"},
        {"write_srinfo_last", "store to ascii", kDriver, kDaemon, "silent-reset record"},
};

constexpr std::string_view kSentence = "CP CRASH: ";

// Where the log directory stands in a path that is shown.
std::string without_directory(const std::string& text) {
    constexpr std::string_view kDirectory = "/data/vendor/log/rvd/";
    const size_t at = text.find(kDirectory);
    return at == std::string::npos ? text
                                   : text.substr(0, at) + text.substr(at + kDirectory.size());
}

class Messages {
  public:
    std::vector<Message> run(const std::vector<Entry>& timeline) {
        for (const Entry& entry : timeline) {
            if (entry.event == nullptr)
                add(kNoTime, kDaemon, kDaemon, entry.text).band = true;
            else
                event(*entry.event);
        }
        answer(false);
        return std::move(messages_);
    }

  private:
    Message& add(KernelTime at, Actor from, Actor to, std::string text) {
        messages_.push_back({at, from, to, std::move(text), false, false});
        return messages_.back();
    }

    void event(const Event& event) {
        const bool of_link = event.step == "std_udl_poll" || event.step == "std_udl_req_resp";
        answer(event.failure && of_link);
        if (event.failure) return failure(event);
        if (event.step == "std_udl_req_resp") return ask(event);
        if (event.step == "load_cp_image_by_stage" || event.step == "std_ul_recv_data" ||
            event.step == "_save_logs")
            return transfer(event);
        for (const Passage& passage : kPassages) {
            if (!passage.step.empty() && event.step != passage.step) continue;
            if (!starts_with(event.message, passage.start)) continue;
            add(event.at, passage.from, passage.to,
                passage.shown != nullptr ? passage.shown : told(event));
            return;
        }
    }

    static std::string told(const Event& event) {
        if (event.step == "std_security_req") return "CHECK_SECURITY: " + event.meaning;
        if (starts_with(event.message, "name:"))
            return "GET_LOG_DUMP " + event.message.substr(5, event.message.find(' ') - 5);
        for (const char* key : {"size:", "dump_size = "}) {
            if (const auto size = unsigned_after(event.message, key))
                return people_size(*size) + " announced";
        }
        if (starts_with(event.message, kSentence)) return event.message.substr(kSentence.size());
        return event.meaning.empty() ? event.message : event.message + " = " + event.meaning;
    }

    void failure(const Event& event) {
        const auto resp = number_after(event.message, "ERR! resp ");
        Message& message = resp ? add(event.at, kLoader, kDaemon,
                                      fmt::format("0x{:X}: {}", *resp, event.meaning))
                                : add(event.at, kDaemon, kDaemon, without_directory(event.text));
        message.failure = true;
    }

    // A word is answered unless a line says otherwise; a step of the dump is, with frames.
    void ask(const Event& event) {
        const auto word = unsigned_after(event.message, "request:");
        if (!word) return;
        add(event.at, kDaemon, kLoader, fmt::format("0x{:04X}: {}", *word, event.meaning));
        const bool step = *word >> 8 == udl_request(UDL_STAGE_DUMP, 0) >> 8 &&
                          (*word & 0xFF) != UDL_CMD_START && (*word & 0xFF) != UDL_CMD_DONE;
        if (!step) awaited_ = {event.at, (*word & ~0xF000u) | UDL_RESP};
    }

    void answer(bool failed) {
        if (awaited_ && !failed) {
            add(awaited_->first, kLoader, kDaemon,
                fmt::format("0x{:04X}: {}", awaited_->second, link_word(awaited_->second)));
        }
        awaited_.reset();
    }

    void transfer(const Event& event) {
        const auto step = unsigned_after(event.message, "[step ");
        const auto saved = unsigned_after(event.message, "saved = ");
        if (step && saved) {
            add(event.at, kLoader, kDaemon, fmt::format("step {}: {}", *step, people_size(*saved)));
        } else if (event.step == "_save_logs" && event.message[0] == '/') {
            add(event.at, kDaemon, kPhone, without_directory(event.message));
        } else if (ends_with(event.message, " stage complelte")) {
            add(event.at, kDaemon, kDriver,
                fmt::format("LOAD_CP_IMAGE, stage {}",
                            event.message.substr(0, event.message.find(' '))));
        }
    }

    std::vector<Message> messages_;
    std::optional<std::pair<KernelTime, uint32_t>> awaited_;  // when asked, and for which word
};

}  // namespace

std::vector<Message> messages_of(const std::vector<Entry>& timeline) {
    return Messages().run(timeline);
}

}  // namespace rvd::report

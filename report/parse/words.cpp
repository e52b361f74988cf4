#include "report/parse/words.h"

#include <fmt/format.h>
#include <string.h>

#include "bootdump/lnkm.h"
#include "main/RvdArgs.h"
#include "protocol/link.h"

namespace rvd::report {

namespace {

// What a number stands for.
struct Known {
    int64_t number;
    const char* word;
};

template <size_t N>
const char* word_of(const Known (&known)[N], int64_t number, const char* otherwise = "") {
    for (const Known& each : known) {
        if (each.number == number) return each.word;
    }
    return otherwise;
}

constexpr Known kCommands[] = {{UDL_CMD_START, "START"},
                               {UDL_CMD_BIN, "BIN"},
                               {UDL_CMD_CRC, "CRC"},
                               {UDL_CMD_DONE, "DONE"}};
constexpr Known kStages[] = {{UDL_STAGE_DUMP, " (dump)"}, {UDL_STAGE_FINISH, " (end of the boot)"}};
constexpr Known kStates[] = {{MODEM_STATE_OFF, "off"},
                             {MODEM_STATE_CRASH_RESET, "crash reset"},
                             {MODEM_STATE_CRASH, "crash"},
                             {MODEM_STATE_CRASH_WATCHDOG, "crash, by the watchdog"}};
constexpr Known kOrigins[] = {
        {static_cast<int64_t>(crash_origin::CP), "the modem itself"},
        {static_cast<int64_t>(crash_origin::RIL), "the radio layer"},
        {static_cast<int64_t>(crash_origin::USER), "the user"},
        {static_cast<int64_t>(crash_origin::LNKM), "the driver"},
        {static_cast<int64_t>(crash_origin::CP_WATCHDOG), "the modem's watchdog"},
        {static_cast<int64_t>(crash_origin::CLD), "CLD"}};
constexpr Known kSecurityModes[] = {{SECURITY_SECURE, "verify BOOT and MAIN"},
                                    {SECURITY_DUMP, "verify the dump's boot loader"},
                                    {SECURITY_NON_SECURE, "open the modem's memory"},
                                    {SECURITY_TOC, "verify a stage"},
                                    {SECURITY_VSS, "verify VSS"}};
constexpr Known kModems[] = {{MODEM_TYPE_TQ720, "integrated"}, {MODEM_TYPE_VK880, "external"}};
constexpr Known kLevels[] = {{0, "low"}, {1, "mid"}, {2, "high"}};

std::string origin_word(int64_t owner) {
    const auto origin = crash_origin_of(static_cast<int32_t>(owner));
    return word_of(kOrigins, static_cast<int64_t>(origin), "nobody known");
}

// The mode is hexadecimal, without saying so.
std::string security_word(std::string_view mode) {
    return word_of(kSecurityModes, number_after("0x" + std::string(mode), "").value_or(-1));
}

std::string modem_word(int64_t type) {
    return word_of(kModems, type);
}

std::string level_word(int64_t level) {
    return word_of(kLevels, level);
}

std::string errno_word(int64_t result) {
    const char* name =
            result < -1 && result > -134 ? strerrorname_np(static_cast<int>(-result)) : nullptr;
    return name == nullptr ? "" : fmt::format("{}, {}", name, strerror(static_cast<int>(-result)));
}

std::optional<uint32_t> word_after(std::string_view message, std::string_view before) {
    const auto value = unsigned_after(message, before);
    return value && *value > 0 && *value <= UINT16_MAX ? value : std::nullopt;
}

// A number behind some words, and what makes sense of it.
struct Sense {
    std::string_view tag, before;
    std::string (*of)(int64_t);
};
constexpr Sense kSenses[] = {
        {"status_loop", "get event ", state_word},
        {"get_modem_state", "modem_status: ", state_word},
        {"make_cp_crash_reason", "reason owner:", origin_word},
        {"main", "Modem type = ", modem_word},
        {"check_debug_level", "debug level=", level_word},
};

}  // namespace

std::string link_word(uint32_t word) {
    const uint32_t direction = word & 0xF000, stage = word >> 8 & 0xF, command = word & 0xFF;
    if (word > UINT16_MAX || (direction != UDL_REQ && direction != UDL_RESP)) return "";
    const char* side = direction == UDL_REQ ? "asked" : "answered";
    if (stage == UDL_STAGE_DUMP && command != UDL_CMD_START && command != UDL_CMD_DONE)
        return fmt::format("step {} of the dump, {}", command, side);
    const std::string name = word_of(kCommands, command);
    if (name.empty()) return "";
    return fmt::format("{} of stage {}{}, {}", name, stage, word_of(kStages, stage), side);
}

std::string state_word(int64_t state) {
    const std::string word = word_of(kStates, state);
    return word.empty() ? fmt::format("state {}", state) : word;
}

std::string meaning_of(const Line& line) {
    for (const Sense& sense : kSenses) {
        if (line.tag != sense.tag) continue;
        if (const auto number = number_after(line.message, sense.before)) return sense.of(*number);
    }
    if (line.tag == "std_security_req" && starts_with(line.message, "security_req: ")) {
        const std::string_view mode = line.message.substr(14, line.message.find(':', 14) - 14);
        return security_word(mode);
    }
    if (const auto resp = word_after(line.message, "resp ")) {
        const auto exp = word_after(line.message, "exp ");
        const std::string said = link_word(*resp);
        return (said.empty() ? "not a word of the link" : said) + " instead of " +
               link_word(exp.value_or(0));
    }
    for (const std::string_view before : {"request:", "command = ", "(req:"}) {
        if (const auto word = word_after(line.message, before)) return link_word(*word);
    }
    for (const std::string_view before : {"fail (ret ", "fail(", "fail (", "err=", "error "}) {
        if (const auto result = number_after(line.message, before)) return errno_word(*result);
    }
    return "";
}

}  // namespace rvd::report

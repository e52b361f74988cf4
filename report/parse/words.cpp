#include "report/parse/words.h"

#include <fmt/format.h>
#include <string.h>

#include "bootdump/lnkm.h"
#include "main/RvdArgs.h"
#include "protocol/link.h"

namespace rvd::report {

namespace {

const char* command_word(uint32_t command) {
    switch (command) {
        case UDL_CMD_START:
            return "START";
        case UDL_CMD_BIN:
            return "BIN";
        case UDL_CMD_CRC:
            return "CRC";
        case UDL_CMD_DONE:
            return "DONE";
        default:
            return nullptr;
    }
}

std::string origin_word(int64_t owner) {
    switch (crash_origin_of(static_cast<int32_t>(owner))) {
        case crash_origin::CP:
            return "the modem itself";
        case crash_origin::RIL:
            return "the radio layer";
        case crash_origin::USER:
            return "the user";
        case crash_origin::LNKM:
            return "the driver";
        case crash_origin::CP_WATCHDOG:
            return "the modem's watchdog";
        case crash_origin::CLD:
            return "CLD";
        case crash_origin::UNKNOWN:
            break;
    }
    return "nobody known";
}

// The mode is hexadecimal, without saying so.
std::string security_word(std::string_view mode) {
    switch (number_after("0x" + std::string(mode), "").value_or(-1)) {
        case SECURITY_SECURE:
            return "verify BOOT and MAIN";
        case SECURITY_DUMP:
            return "verify the dump's boot loader";
        case SECURITY_NON_SECURE:
            return "open the modem's memory";
        case SECURITY_TOC:
            return "verify a stage";
        case SECURITY_VSS:
            return "verify VSS";
        default:
            return "";
    }
}

std::string modem_word(int64_t type) {
    return type == MODEM_TYPE_TQ720 ? "integrated" : type == MODEM_TYPE_VK880 ? "external" : "";
}

std::string level_word(int64_t level) {
    constexpr const char* kLevels[] = {"low", "mid", "high"};
    return level >= 0 && level < 3 ? kLevels[level] : "";
}

std::string errno_word(int64_t result) {
    const char* name =
            result < -1 && result > -134 ? strerrorname_np(static_cast<int>(-result)) : nullptr;
    return name == nullptr ? "" : fmt::format("{}, {}", name, strerror(static_cast<int>(-result)));
}

std::optional<uint32_t> word_after(std::string_view message, std::string_view before) {
    const auto value = number_after(message, before);
    if (!value || *value <= 0 || *value > UINT16_MAX) return std::nullopt;
    return static_cast<uint32_t>(*value);
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
    const char* name = command_word(command);
    if (name == nullptr) return "";
    const char* what = stage == UDL_STAGE_DUMP     ? " (dump)"
                       : stage == UDL_STAGE_FINISH ? " (end of the boot)"
                                                   : "";
    return fmt::format("{} of stage {}{}, {}", name, stage, what, side);
}

std::string state_word(int64_t state) {
    switch (state) {
        case MODEM_STATE_OFF:
            return "off";
        case MODEM_STATE_CRASH_RESET:
            return "crash reset";
        case MODEM_STATE_CRASH:
            return "crash";
        case MODEM_STATE_CRASH_WATCHDOG:
            return "crash, by the watchdog";
        default:
            return fmt::format("state {}", state);
    }
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
        return (said.empty() ? "no word of the link" : said) + " instead of " +
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

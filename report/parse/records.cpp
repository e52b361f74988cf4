#include "report/parse/records.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

namespace rvd::report {

namespace {

constexpr size_t kHeaderLength = sizeof("[2020-10-01 12:31:06]") - 1;
constexpr size_t kRowLength = record_length(1) - record_length(0) - 1;
constexpr size_t kTextAt = 16;  // in a record's data
constexpr size_t kRecordLimit = 4096;

std::optional<uint32_t> hex(std::string_view text) {
    uint32_t value = 0;
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, value, 16);
    if (parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
    return value;
}

// As the log shows a byte beside the row's words.
char shown(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x22 && byte <= 0x7D ? c : '.';
}

// "0010:564a227b 3a225245 72222c31 6f736165 {"JVER":1,"reaso"; says what is wrong with it.
std::string take_row(std::string_view row, std::string& data) {
    if (row.size() != kRowLength) return "a row of the wrong length";
    const auto offset = hex(row.substr(0, 4));
    if (!offset || row[4] != ':') return "not a row";
    if (*offset != data.size()) return "a row out of order";
    if (data.size() >= kRecordLimit) return "more rows than a record has";
    std::string bytes;
    for (size_t word = 0; word < 4; word++) {
        const auto value = hex(row.substr(5 + word * 9, 8));
        if (!value || row[13 + word * 9] != ' ') return "not a row";
        for (unsigned shift = 0; shift < 32; shift += 8)
            bytes += static_cast<char>(*value >> shift);
    }
    std::string text = bytes;
    std::transform(text.begin(), text.end(), text.begin(), shown);
    if (text != row.substr(41)) return "a row whose text is not that of its words";
    data += bytes;
    return "";
}

}  // namespace

std::string Record::text() const {
    if (data.size() <= kTextAt) return "";
    const std::string text = data.substr(kTextAt);
    const size_t brace = text.find('}');
    return brace == std::string::npos ? text : text.substr(0, brace + 1);
}

Records read_records(std::string_view text) {
    Records found;
    Record* open = nullptr;
    size_t at = 0;
    const auto damaged = [&](const std::string& what) {
        const std::string damage = fmt::format("{} at offset {}", what, at);
        if (found.damage.empty()) found.damage = damage;
        if (open != nullptr && open->damage.empty()) open->damage = damage;
    };
    while (at < text.size()) {
        const size_t end = text.find('\n', at);
        const std::string_view line =
                text.substr(at, end == std::string_view::npos ? end : end - at);
        if (end == std::string_view::npos) damaged("a line without its end");
        if (line.empty()) {
            if (open == nullptr) damaged("an empty line too many");
            open = nullptr;
        } else if (line.size() == kHeaderLength && line.front() == '[' && line.back() == ']') {
            if (open != nullptr) damaged("a record without its end");
            found.records.emplace_back();
            open = &found.records.back();
            open->offset = at;
            const auto time = parse_time(line.substr(1, kHeaderLength - 2));
            if (time) open->time = *time;
            if (!time) damaged("an invalid time");
        } else if (open == nullptr) {
            damaged("a row of no record");
        } else if (const std::string wrong = take_row(line, open->data); !wrong.empty()) {
            damaged(wrong);
        }
        at = end == std::string_view::npos ? text.size() : end + 1;
    }
    if (open != nullptr) damaged("a record without its end");
    return found;
}

}  // namespace rvd::report

#include "lab/scenario/words.h"

#include <fmt/format.h>
#include <stdlib.h>

#include <algorithm>
#include <sstream>

#include "lab/modem/driver.h"

namespace rvd::lab {

namespace {

constexpr size_t kLongestName = 12;
constexpr const char* kPlaces[] = {"/data", "/dev", "/efs", "/mnt", "/sys"};

// No ".." leads out of it, and its parts have names.
bool is_plain(const std::string& path) {
    return !path.empty() && path[0] == '/' && path.find("//") == path.npos &&
           path.find('\0') == path.npos && (path + "/").find("/../") == path.npos &&
           (path + "/").find("/./") == path.npos;
}

bool all_of(const std::string& text, const char* characters) {
    return text.find_first_not_of(characters) == text.npos;
}

// "4096", "0x1000" or "64K".
bool read_number(const std::string& text, std::optional<int64_t>& out) {
    char* end = nullptr;
    const unsigned long long number = strtoull(text.c_str(), &end, 0);
    const std::string unit = end;
    const int shift = unit == "K" ? 10 : unit == "M" ? 20 : unit.empty() ? 0 : -1;
    if (text.empty() || text[0] < '0' || text[0] > '9' || shift < 0) return false;
    if (number > (uint64_t{UINT32_MAX} >> shift)) return false;
    out = static_cast<int64_t>(number << shift);
    return true;
}

bool read_entry(const std::string& word, FirmwareEntry& entry) {
    constexpr char kMarks[] = ":@>#";
    size_t at = word.find_first_of(kMarks);
    entry.name = word.substr(0, at);
    while (at != word.npos) {
        const size_t next = word.find_first_of(kMarks, at + 1);
        std::optional<int64_t>& value = word[at] == ':'   ? entry.size
                                        : word[at] == '@' ? entry.b_off
                                        : word[at] == '>' ? entry.m_off
                                                          : entry.crc;
        if (value || !read_number(word.substr(at + 1, next - at - 1), value)) return false;
        at = next;
    }
    return !entry.name.empty();
}

}  // namespace

bool is_one_of(const std::string& word, const std::vector<std::string>& known) {
    return std::find(known.begin(), known.end(), word) != known.end();
}

bool is_phone_path(const std::string& path) {
    return is_plain(path) &&
           std::any_of(std::begin(kPlaces), std::end(kPlaces), [&](const std::string& place) {
               return path == place || path.compare(0, place.size() + 1, place + "/") == 0;
           });
}

std::string not_a_phone_path(const std::string& path) {
    return fmt::format("\"{}\" is not the phone's: expected an absolute path without \"..\" in {}",
                       path, fmt::join(kPlaces, ", "));
}

bool is_file_pattern(const std::string& path) {
    return is_plain(path) && path.find_first_of("*?[") >= path.rfind('/');
}

std::string not_a_file_pattern(const std::string& path) {
    return fmt::format(
            "\"{}\" matches nothing: expected an absolute path without \"..\" whose last part "
            "alone is a pattern",
            path);
}

bool is_property_name(const std::string& name) {
    return !name.empty() && name.front() != '.' && name.back() != '.' &&
           name.find("..") == name.npos &&
           all_of(name, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._:@-");
}

bool is_mode(const std::string& mode) {
    return mode.size() == 4 && all_of(mode, "01234567");
}

bool is_end(const std::string& end) {
    if (end.compare(0, 5, "exit ") == 0)
        return end.size() > 5 && end.size() < 9 && all_of(end.substr(5), "0123456789") &&
               atoi(end.c_str() + 5) <= 255;
    return is_one_of(end, {"waits", "parked", "limit", "upload", "stop"});
}

bool is_loader_place(const std::string& place) {
    const size_t point = place.find('.');
    if (point == place.npos) {
        return place == "info" || place == "reason" ||
               (place.size() == 6 && place.compare(0, 2, "0x") == 0 &&
                all_of(place.substr(2), "0123456789ABCDEF"));
    }
    return point > 0 && point + 1 < place.size() && all_of(place.substr(0, point), "0123456789") &&
           all_of(place.substr(point + 1), "0123456789");
}

std::vector<std::string> request_words() {
    std::vector<std::string> words = request_names();
    words.insert(words.end(), {"link", "prctl", "setuid", "capset", "sync"});
    return words;
}

bool can_be_request(const std::string& pattern) {
    const std::string head = pattern.substr(0, pattern.find(' '));
    const auto words = request_words();
    return std::any_of(words.begin(), words.end(),
                       [&](const std::string& word) { return matches(head, word); });
}

std::vector<FirmwareEntry> read_table(const std::string& text, std::string& why) {
    std::vector<FirmwareEntry> entries;
    std::istringstream in(text);
    for (std::string word; in >> word;) {
        FirmwareEntry entry;
        if (!read_entry(word, entry))
            why = fmt::format("\"{}\" is no entry: expected NAME:SIZE@PLACE>PLACE#CHECKSUM", word);
        if (entry.name.size() > kLongestName)
            why = fmt::format("\"{}\" is longer than {} characters", entry.name, kLongestName);
        entries.push_back(std::move(entry));
    }
    if (entries.empty()) why = "a table has at least one entry";
    return entries;
}

}  // namespace rvd::lab

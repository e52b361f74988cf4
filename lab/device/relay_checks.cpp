#include "lab/device/relay_checks.h"

#include <inttypes.h>
#include <linux/capability.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <iterator>
#include <map>

#include "lab/base.h"

namespace rvd::lab {

namespace {

constexpr char kPrefix[] = "lnkm: rvd: ";
constexpr int kRadio = 1001;
constexpr int kLevelMask = 7;

struct Capability {
    int number;
    const char* name;
};
constexpr Capability kKept[] = {
        {CAP_NET_ADMIN, "CAP_NET_ADMIN"}, {CAP_NET_RAW, "CAP_NET_RAW"},
        {CAP_SYS_ADMIN, "CAP_SYS_ADMIN"}, {CAP_SYS_BOOT, "CAP_SYS_BOOT"},
        {CAP_SYSLOG, "CAP_SYSLOG"},       {CAP_BLOCK_SUSPEND, "CAP_BLOCK_SUSPEND"},
};

// The rest of the line that begins with `name`.
std::string field(const std::string& status, const std::string& name) {
    const std::string head = "\n" + name + ":\t";
    const size_t at = status.find(head);
    if (at == std::string::npos) return "";
    const size_t begin = at + head.size();
    return status.substr(begin, status.find('\n', begin) - begin);
}

void check_set(const std::string& status, const std::string& name, bool empty,
               std::vector<std::string>& faults) {
    uint64_t rest = strtoull(field(status, name).c_str(), nullptr, 16);
    for (const Capability& kept : kKept) {
        const uint64_t bit = uint64_t{1} << kept.number;
        if (!empty && (rest & bit) == 0)
            faults.push_back(std::string(kept.name) + " is missing in the daemon's " + name);
        if (!empty) rest &= ~bit;
    }
    if (rest != 0)
        faults.push_back(format("the daemon has capabilities 0x%" PRIx64 " too many in ", rest) +
                         name);
}

// A text's lines, empty ones left out: the sinks cut line breaks at the ends differently.
void add_lines(const std::string& head, const std::string& text, std::vector<std::string>& lines) {
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        if (end > at) lines.push_back(head + text.substr(at, end - at));
        at = end + 1;
    }
}

}  // namespace

bool parse_kernel_record(const std::string& record, int& level, std::string& text) {
    const size_t end = std::min(record.find('\n'), record.size());
    const size_t semicolon = record.find(';');
    if (semicolon >= end) return false;
    level = static_cast<int>(strtoul(record.c_str(), nullptr, 10)) & kLevelMask;
    text.clear();
    for (size_t i = semicolon + 1; i < end; i++) {
        unsigned code = 0;
        if (record[i] == '\\' && sscanf(record.c_str() + i, "\\x%2x", &code) == 1) {
            text += static_cast<char>(code);
            i += 3;
        } else {
            text += record[i];
        }
    }
    return text.compare(0, sizeof(kPrefix) - 1, kPrefix) == 0;
}

std::vector<std::string> identity_faults(const std::string& status, bool root) {
    std::vector<std::string> faults;
    const int user = root ? 0 : kRadio;
    const std::string ids = field(status, "Uid");
    if (ids != format("%d\t%d\t%d\t%d", user, user, user, user))
        faults.push_back("the daemon's user numbers are " + ids);
    if (root) return faults;
    check_set(status, "CapEff", false, faults);
    check_set(status, "CapPrm", false, faults);
    check_set(status, "CapInh", true, faults);
    check_set(status, "CapAmb", true, faults);
    return faults;
}

std::vector<std::string> sink_faults(const std::vector<std::string>& kernel,
                                     const std::string& android) {
    std::vector<std::string> first, second, faults;
    for (const std::string& line : kernel) {
        const char level = line[0] == '6' ? 'D' : line[0] == '3' ? 'E' : line[0];
        add_lines(std::string(1, level) + " ", line.substr(sizeof(kPrefix)), first);
    }
    static const std::string kHeads[] = {"D/boot: rvd: ", "E/boot: rvd: "};
    for (size_t at = 0; at < android.size();) {
        const size_t end = std::min(android.find('\n', at), android.size());
        const std::string line = android.substr(at, end - at);
        const bool head = line.compare(0, kHeads[0].size(), kHeads[0]) == 0 ||
                          line.compare(0, kHeads[1].size(), kHeads[1]) == 0;
        // A line without a head goes on with the message before it.
        if (!line.empty())
            second.push_back(head ? std::string(1, line[0]) + " " + line.substr(kHeads[0].size())
                                  : "D " + line);
        at = end + 1;
    }
    std::sort(first.begin(), first.end());
    std::sort(second.begin(), second.end());
    std::vector<std::string> only;
    std::set_difference(first.begin(), first.end(), second.begin(), second.end(),
                        std::back_inserter(only));
    for (const std::string& line : only)
        faults.push_back("only in the kernel's log: " + line);
    only.clear();
    std::set_difference(second.begin(), second.end(), first.begin(), first.end(),
                        std::back_inserter(only));
    for (const std::string& line : only)
        faults.push_back("not in the kernel's log: " + line);
    return faults;
}

}  // namespace rvd::lab

#include "report/findings/findings.h"

#include <toml++/toml.h>

#include <algorithm>

#include "report/findings/troubles.h"

namespace rvd::report {

namespace {

struct Trouble {
    std::vector<std::string> patterns;
    std::string means;
};

std::vector<Trouble> read_troubles() {
    std::vector<Trouble> troubles;
    const toml::table file = toml::parse(kTroubles);
    for (const toml::node& node : *file["trouble"].as_array()) {
        const toml::table& table = *node.as_table();
        Trouble trouble;
        trouble.means = table["means"].value_or(std::string());
        if (const toml::array* lines = table["lines"].as_array()) {
            for (const toml::node& line : *lines)
                trouble.patterns.push_back(line.value_or(std::string()));
        }
        troubles.push_back(std::move(trouble));
    }
    return troubles;
}

bool knows(const Trouble& trouble, const std::string& text) {
    return std::any_of(trouble.patterns.begin(), trouble.patterns.end(),
                       [&](const std::string& pattern) { return has_pattern(text, pattern); });
}

}  // namespace

bool has_pattern(const std::string& text, const std::string& pattern) {
    constexpr std::string_view kAnything = "...";
    size_t at = 0;
    for (size_t from = 0; from <= pattern.size();) {
        const size_t end = std::min(pattern.find(kAnything, from), pattern.size());
        const size_t found = text.find(pattern.substr(from, end - from), at);
        if (found == std::string::npos) return false;
        at = found + (end - from);
        from = end + kAnything.size();
    }
    return true;
}

std::vector<Finding> find_troubles(const std::vector<Event>& events) {
    const std::vector<Trouble> troubles = read_troubles();
    std::vector<Finding> by_trouble(troubles.size());
    for (const Event& event : events) {
        for (size_t i = 0; i < troubles.size(); i++) {
            if (!knows(troubles[i], event.message)) continue;
            Finding& finding = by_trouble[i];
            if (finding.first == nullptr) finding.first = &event;
            finding.means = troubles[i].means;
            finding.times++;
            break;
        }
    }
    by_trouble.erase(std::remove_if(by_trouble.begin(), by_trouble.end(),
                                    [](const Finding& finding) { return finding.times == 0; }),
                     by_trouble.end());
    std::sort(by_trouble.begin(), by_trouble.end(),
              [](const Finding& a, const Finding& b) { return a.first < b.first; });
    return by_trouble;
}

}  // namespace rvd::report

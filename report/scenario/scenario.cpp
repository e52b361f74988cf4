// The parts of a scenario in one file, and what they share.
#include "report/scenario/scenario.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cctype>

#include "report/scenario/draft.h"

namespace rvd::report {

namespace {

std::string quoted(const std::string& text) {
    std::string safe;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\')
            safe += {'\\', c};
        else
            safe += byte >= 0x20 && byte < 0x7F ? std::string(1, c)
                                                : fmt::format("\\u{:04X}", byte);
    }
    return '"' + safe + '"';
}

std::string key_text(const std::string& key) {
    const bool bare = std::all_of(key.begin(), key.end(), [](unsigned char c) {
        return c < 0x80 && (std::isalnum(c) != 0 || c == '_');
    });
    return bare ? key : quoted(key);
}

// A value within its line; tables in a list, and lines of the log, have one each.
std::string inline_toml(const Draft& value, const char* between = ", ") {
    if (value.is_string()) return quoted(value.get<std::string>());
    if (!value.is_structured()) return value.dump();
    std::vector<std::string> parts;
    for (const auto& [key, part] : value.items())
        parts.push_back((value.is_object() ? key_text(key) + " = " : "") + inline_toml(part));
    return fmt::format(value.is_object() ? "{{ {} }}" : "[{}]", fmt::join(parts, between));
}

// A table of the case, its own tables behind its keys.
std::string toml(const std::string& name, const Draft& table) {
    std::string keys, tables;
    for (const auto& [key, value] : table.items()) {
        if (value.empty()) continue;
        const bool nested = value.is_object() && name.find('.') == std::string::npos;
        const bool lines = value.is_array() && (value[0].is_object() || key == "log");
        if (nested)
            tables += toml(name + '.' + key, value);
        else
            keys += key_text(key) + " = " + inline_toml(value, lines ? ",\n    " : ", ") + "\n";
    }
    return fmt::format(name.find('.') == std::string::npos ? "[[{}]]\n{}" : "\n[{}]\n{}", name,
                       keys) +
           tables;
}

// Failures, in their order: a run that shows them all is the one of the evidence.
Draft expected_lines(const Events& events) {
    Draft lines = Draft::array();
    for (const Event& event : events) {
        if (event.failure) lines.push_back(pattern_of(event));
    }
    if (lines.empty()) lines.push_back(pattern_of(events.back()));
    return lines;
}

}  // namespace

uint64_t saved_size(const Report& report, Kind kind, const std::string& detail) {
    uint64_t size = 0;
    for (const Incident& incident : report.incidents) {
        for (const JudgedFile& file : incident.files) {
            if (file.file.name.kind == kind && file.file.name.detail == detail)
                size = std::max(size, file.file.size);
        }
    }
    return size;
}

bool says(const Event& event, std::string_view step, std::string_view start) {
    return (step.empty() || event.step == step) && starts_with(event.message, start);
}

size_t first_said(const Events& events, std::string_view step, std::string_view start,
                  size_t from) {
    while (from < events.size() && !says(events[from], step, start))
        from++;
    return std::min(from, events.size());
}

std::string behind(const std::string& message, std::string_view start) {
    return message.substr(start.size());
}

std::string pattern_of(const Event& event) {
    return without_chance(event.text) + "*";
}

Draft line_of(const char* key, const Events& events, size_t at, size_t from) {
    const std::string start = without_chance(events[at].text);
    const auto said =
            std::count_if(events.begin() + static_cast<ptrdiff_t>(from),
                          events.begin() + static_cast<ptrdiff_t>(at + 1),
                          [&](const Event& event) { return starts_with(event.text, start); });
    Draft line = {{key, pattern_of(events[at])}};
    if (said > 1) line["said"] = said;
    return line;
}

std::string scenario(const Report& report, const Events& events) {
    if (events.empty()) throw Unreadable(report.path + ": no line of the daemon in it");
    const size_t end = report.path.find_last_not_of('/') + 1;
    const size_t slash = report.path.substr(0, end).rfind('/') + 1;
    Draft draft = {{"name", report.path.substr(slash, end - slash)}};
    describe_phone(events, draft);
    describe_modem(events, report, draft);
    describe_failures(events, report, draft);
    describe_course(events, draft);
    draft["expect"]["log"] = expected_lines(events);
    return fmt::format("# Made by rvd-report from {}.\n{}", quoted(report.path),
                       toml("case", draft));
}

}  // namespace rvd::report

// The parts of a scenario in one file, and what they share.
#include "report/scenario/scenario.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

#include "report/scenario/draft.h"

namespace rvd::report {

namespace {

void write_table(const char* name, const Keys& keys, std::string& out) {
    if (keys.empty()) return;
    out += fmt::format("\n[case.{}]\n", name);
    for (const auto& [key, value] : keys)
        out += fmt::format("{} = {}\n", key, value);
}

void write_tables(const char* name, const std::vector<std::string>& tables, std::string& out) {
    if (tables.empty()) return;
    out += fmt::format("{} = [\n    {},\n]\n", name, fmt::join(tables, ",\n    "));
}

Keys texts(const std::map<std::string, std::string>& pairs) {
    Keys keys;
    for (const auto& [name, text] : pairs)
        keys[quoted(name)] = quoted(text);
    return keys;
}

// Failures, in their order: a run that shows them all is the one of the evidence.
std::vector<std::string> expected_lines(const Events& events) {
    std::vector<std::string> lines;
    for (const Event& event : events) {
        if (event.failure) lines.push_back(pattern_of(event));
    }
    if (lines.empty()) lines.push_back(pattern_of(events.back()));
    return lines;
}

}  // namespace

std::string quoted(std::string_view text) {
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

std::string inline_table(const Keys& keys) {
    std::vector<std::string> pairs;
    for (const auto& [key, value] : keys)
        pairs.push_back(key + " = " + value);
    return fmt::format("{{ {} }}", fmt::join(pairs, ", "));
}

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

std::string_view behind(const std::string& message, std::string_view start) {
    return std::string_view(message).substr(start.size());
}

std::string pattern_of(const Event& event) {
    return without_chance(event.text) + "*";
}

size_t times_said(const Events& events, size_t at, size_t from) {
    const std::string start = without_chance(events[at].text);
    return static_cast<size_t>(
            std::count_if(events.begin() + static_cast<ptrdiff_t>(from),
                          events.begin() + static_cast<ptrdiff_t>(at + 1),
                          [&](const Event& event) { return starts_with(event.text, start); }));
}

std::string after(const Events& events, size_t at) {
    const size_t said = times_said(events, at);
    return fmt::format("after = {}{}", quoted(pattern_of(events[at])),
                       said > 1 ? fmt::format(", said = {}", said) : "");
}

std::string scenario(const Report& report, const Events& events) {
    if (events.empty()) throw Unreadable(report.path + ": no line of the daemon in it");
    Draft draft;
    describe_phone(events, draft);
    describe_modem(events, report, draft);
    describe_failures(events, report, draft);
    describe_course(events, draft);

    const auto quoted_all = [](const std::vector<std::string>& list, const char* between) {
        std::vector<std::string> each;
        std::transform(list.begin(), list.end(), std::back_inserter(each),
                       [](const std::string& text) { return quoted(text); });
        return fmt::format("[{}]", fmt::join(each, between));
    };
    const size_t end = report.path.find_last_not_of('/') + 1;
    const size_t slash = report.path.substr(0, end).rfind('/') + 1;
    const std::string name = report.path.substr(slash, end - slash);
    std::string out = fmt::format("# Made by rvd-report from {}.\n[[case]]\nname = {}\n",
                                  quoted(report.path), quoted(name));
    out += fmt::format("modem = {}\n", quoted(draft.modem));
    out += fmt::format("args = {}\n", quoted_all(draft.args, ", "));
    out += fmt::format("cmdline = {}\n", quoted(fmt::format("{}", fmt::join(draft.cmdline, " "))));
    if (!draft.start.empty()) out += fmt::format("start = {}\n", quoted(draft.start));
    write_tables("loader", draft.loader, out);
    write_tables("fault", draft.faults, out);
    write_tables("timeline", draft.timeline, out);
    write_table("properties", texts(draft.properties), out);
    write_table("phone", draft.phone, out);
    write_table("phone.files", texts(draft.files), out);
    write_table("firmware", draft.firmware, out);
    if (!draft.answers.empty())
        draft.driver["answer"] = fmt::format("[\n    {},\n]", fmt::join(draft.answers, ",\n    "));
    write_table("driver", draft.driver, out);
    write_table("driver.regions", draft.regions, out);
    write_table("dump", draft.dump, out);
    write_table(
            "expect",
            {{"end", quoted(draft.end)}, {"log", quoted_all(expected_lines(events), ",\n    ")}},
            out);
    return out;
}

}  // namespace rvd::report

#include "report/print/tables.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

#include "report/print/people.h"

namespace rvd::report {

namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return text;
}

std::string verdict_of(const Incident& incident) {
    const auto lost = incident.lost();
    if (lost.empty()) return "nothing lost";
    const JudgedFile& first = *lost.front();
    std::string text =
            fmt::format("{} {}", kind_name(first.file.name.kind), state_name(first.verdict.state));
    if (lost.size() > 1) text += fmt::format(", and {} more", lost.size() - 1);
    return text;
}

std::string shown(const std::string& text) {
    return text.empty() ? "-" : printable(text);
}

std::string place_of(const Incident& incident) {
    if (!incident.boot_step.empty()) return "in the modem's boot: " + incident.boot_step;
    return incident.since_boot == kNoTime ? "" : "after the modem's boot";
}

class Comparison {
  public:
    explicit Comparison(const Style& style) : style_(style) {}

    std::string text;
    bool alike = true;

    void row(const std::string& what, const std::string& a, const std::string& b) {
        if (a.empty() && b.empty()) return;
        if (a == b) {
            text += fmt::format("  {:<28} {}\n", what, shown(a));
            return;
        }
        alike = false;
        text += painted(fmt::format("! {:<28} {}\n  {:<28} {}", what, shown(a), "", shown(b)), "33",
                        style_) +
                "\n";
    }

    // Times differ without being a difference.
    void times(const std::string& what, const std::string& a, const std::string& b) {
        if (a.empty() && b.empty()) return;
        text += fmt::format("  {:<28} {}\n", what, shown(a));
        if (a != b) text += fmt::format("  {:<28} {}\n", "", shown(b));
    }

  private:
    Style style_;
};

// The files of an incident by what they are, whatever their times are.
std::map<std::string, std::string> files_by_kind(const Incident& incident) {
    std::map<std::string, std::string> files;
    for (const JudgedFile& file : incident.files) {
        const Kind kind = file.file.name.kind;
        const std::string& region = kind == Kind::kRegion ? file.file.name.detail : "";
        std::string what = state_name(file.verdict.state);
        // The length of a log differs from run to run.
        if ((kind == Kind::kDump || kind == Kind::kRegion) && file.verdict.state != State::kMissing)
            what = people_size(file.file.size) + ", " + what;
        std::string& slot = files[kind_name(kind) + (region.empty() ? "" : " " + region)];
        slot += (slot.empty() ? "" : "; ") + what;
    }
    return files;
}

std::string header_words(const Record& record) {
    std::string words;
    for (size_t at = 0; at + 4 <= record.data.size() && at < 16; at += 4) {
        uint32_t word = 0;
        std::copy_n(record.data.data() + at, 4, reinterpret_cast<char*>(&word));
        words += fmt::format("{}{:08x}", at == 0 ? "" : " ", word);
    }
    return words;
}

}  // namespace

bool Selection::takes(const Incident& incident) const {
    if (since && incident.time < *since) return false;
    if (incomplete && incident.lost().empty()) return false;
    return reason.empty() || lower(incident.sentence).find(lower(reason)) != std::string::npos;
}

std::string list(const Report& report, const Selection& selection, const Style& style) {
    std::string text;
    size_t count = 0;
    for (const Incident& incident : report.incidents) {
        if (!selection.takes(incident)) continue;
        count++;
        const bool lost = !incident.lost().empty();
        const std::string reason = !incident.crash           ? "reset"
                                   : incident.reason.empty() ? incident.sentence
                                                             : incident.reason;
        text += fmt::format("{:<19}  {:<4}  {:<5}  {:<40}  {}\n",
                            format_time(incident.time, incident.to_the_minute), incident.modem,
                            printable(incident.origin), printable(reason),
                            painted(verdict_of(incident), lost ? "31" : "32", style));
    }
    return text + fmt::format("{} incident{}\n", count, count == 1 ? "" : "s");
}

std::string compare(const Incident& a, const Incident& b, const Style& style, bool& alike) {
    Comparison comparison(style);
    comparison.times("time", format_time(a.time, a.to_the_minute),
                     format_time(b.time, b.to_the_minute));
    comparison.row("modem", a.modem, b.modem);
    comparison.row("who", a.origin, b.origin);
    comparison.row("why", a.reason, b.reason);
    comparison.row("place", place_of(a), place_of(b));
    comparison.times("after the modem's boot",
                     a.since_boot == kNoTime ? "" : people_span(a.since_boot),
                     b.since_boot == kNoTime ? "" : people_span(b.since_boot));
    comparison.row("driver", a.driver_version, b.driver_version);
    comparison.row("daemon", a.daemon_version, b.daemon_version);
    comparison.row("stopped", a.stopped, b.stopped);
    const auto files_a = files_by_kind(a), files_b = files_by_kind(b);
    std::map<std::string, std::string> all = files_a;
    all.insert(files_b.begin(), files_b.end());
    for (const auto& [kind, unused] : all) {
        const auto in_a = files_a.find(kind), in_b = files_b.find(kind);
        comparison.row(kind, in_a == files_a.end() ? "none" : in_a->second,
                       in_b == files_b.end() ? "none" : in_b->second);
    }
    alike = comparison.alike;
    return comparison.text + (alike ? "alike\n" : "they differ\n");
}

std::string records_table(const Report& report, const Style& style) {
    std::string text;
    for (const RecordFile& file : report.records) {
        text += painted(printable(file.path), "1", style) + "\n";
        text += fmt::format("  {:>6}  {:<19}  {:>5}  {:<35}  {}\n", "offset", "time", "bytes",
                            "header", "text");
        for (const Record& record : file.content.records) {
            text += fmt::format("  {:>6}  {:<19}  {:>5}  {:<35}  {}\n", record.offset,
                                record.time < 0 ? "" : format_time(record.time), record.data.size(),
                                header_words(record), printable(record.text()));
            if (!record.damage.empty())
                text += "          " + painted(record.damage, "31", style) + "\n";
        }
        if (!file.content.damage.empty())
            text += "  " + painted("damaged: " + file.content.damage, "31", style) + "\n";
    }
    return text.empty() ? "no silent-reset records\n" : text;
}

}  // namespace rvd::report

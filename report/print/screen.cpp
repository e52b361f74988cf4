#include "report/print/screen.h"

#include <fmt/format.h>

#include "report/print/people.h"

namespace rvd::report {

namespace {

constexpr int kNameWidth = 48;

class Screen {
  public:
    explicit Screen(const Style& style) : style_(style) {}

    std::string text;

    void incident(const Incident& incident) {
        line(bold(heading(incident)));
        if (incident.crash) {
            field("who", who(incident));
            field("why", incident.reason.empty() ? printable(incident.sentence)
                                                 : printable(incident.reason));
        }
        field("when", when(incident));
        field("versions", versions(incident));
        if (!incident.stopped.empty()) field("stopped", printable(incident.stopped));
        for (const Record& record : incident.records)
            field("silent reset", printable(record.text()));
        line("");
        for (const JudgedFile& file : incident.files)
            this->file(file);
        line("");
    }

    void others(const Report& report) {
        if (report.others.empty()) return;
        line(bold("Files of no single crash"));
        for (const JudgedFile& file : report.others)
            this->file(file);
        line("");
    }

    void findings(const std::vector<Finding>& findings) {
        if (findings.empty()) return;
        line(bold("What the lines mean"));
        for (const Finding& finding : findings) {
            const std::string times =
                    finding.times > 1 ? fmt::format(" ({} times)", finding.times) : "";
            line("  " + printable(finding.first->text) + times);
            line("    " + finding.means);
        }
        line("");
    }

    void last_line(const Report& report) {
        size_t lost = 0;
        std::string names;
        const auto count = [&](const JudgedFile& file) {
            if (!file.verdict.lost) return;
            lost++;
            if (lost <= 3)
                names += (lost > 1 ? "; " : "") + printable(file.file.base()) + " " +
                         state_name(file.verdict.state);
        };
        for (const Incident& incident : report.incidents) {
            for (const JudgedFile& file : incident.files)
                count(file);
        }
        for (const JudgedFile& file : report.others)
            count(file);
        if (lost > 3) names += fmt::format("; and {} more", lost - 3);
        line(lost == 0 ? "nothing was lost" : "lost: " + names);
    }

  private:
    void line(const std::string& what) { text += what + "\n"; }

    void field(const char* name, const std::string& value) {
        if (!value.empty()) line(fmt::format("  {:<13} {}", name, value));
    }

    std::string bold(const std::string& what) const { return painted(what, "1", style_); }

    static std::string heading(const Incident& incident) {
        std::string what = incident.crash ? "Crash of modem " : "Reset of modem ";
        what += printable(incident.modem);
        if (!incident.type.empty()) what += " (" + printable(incident.type) + ")";
        what += ", " + format_time(incident.time, incident.to_the_minute);
        if (incident.again) what += ", its dump tried again";
        return what;
    }

    static std::string who(const Incident& incident) {
        if (incident.origin.empty()) return "not known";
        std::string text = printable(incident.origin);
        if (incident.owner) text += fmt::format(" (owner {})", *incident.owner);
        return text;
    }

    static std::string when(const Incident& incident) {
        std::string text = format_time(incident.time, incident.to_the_minute);
        if (incident.kernel_time != kNoTime) {
            text += fmt::format(", {} after the device's start ({})",
                                people_span(incident.kernel_time),
                                people_stamp(incident.kernel_time));
        }
        if (incident.since_boot != kNoTime)
            text += ", " + people_span(incident.since_boot) + " after the modem's boot";
        if (!incident.boot_step.empty())
            text += ", in the modem's boot: " + printable(incident.boot_step);
        return text;
    }

    static std::string versions(const Incident& incident) {
        std::string text;
        if (!incident.driver_version.empty()) text = "driver " + printable(incident.driver_version);
        if (!incident.daemon_version.empty())
            text += (text.empty() ? "" : ", ") + ("daemon " + printable(incident.daemon_version));
        return text;
    }

    void file(const JudgedFile& judged) {
        const State state = judged.verdict.state;
        const std::string size = state == State::kMissing ? "" : people_size(judged.file.size);
        std::string verdict = state_name(state);
        if (!judged.verdict.why.empty()) verdict += ": " + printable(judged.verdict.why);
        const char* colour = judged.verdict.lost ? "31" : state == State::kComplete ? "32" : "33";
        line(fmt::format("  {:<{}} {:>10}  {}", printable(judged.file.base()), kNameWidth, size,
                         painted(verdict, colour, style_)));
    }

    Style style_;
};

}  // namespace

std::string painted(const std::string& what, const char* code, const Style& style) {
    return style.colours ? std::string("\033[") + code + "m" + what + "\033[0m" : what;
}

std::string screen(const std::vector<Entry>& timeline, const Style& style) {
    std::string text;
    for (const Entry& entry : timeline) {
        if (entry.kind != Entry::Kind::kEvent) {
            text += fmt::format("{:>12}  {}\n", "",
                                painted("-- " + entry.text + " --", "33", style));
            continue;
        }
        const Event& event = *entry.event;
        const std::string at = event.at == kNoTime ? "" : people_stamp(event.at);
        std::string line = printable(event.text);
        if (event.failure) line = painted(line, "31", style);
        if (!event.meaning.empty()) line += painted("  = " + printable(event.meaning), "36", style);
        text += fmt::format("{:>12}  {}\n", at, line);
    }
    return text;
}

std::string screen(const Report& report, const std::vector<Finding>& findings, const Style& style) {
    Screen screen(style);
    for (const Incident& incident : report.incidents)
        screen.incident(incident);
    screen.others(report);
    screen.findings(findings);
    screen.last_line(report);
    return screen.text;
}

}  // namespace rvd::report

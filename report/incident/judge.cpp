// The verdict for each file: what the daemon's lines say it must be, against what it is.
#include <fmt/format.h>

#include <algorithm>

#include "protocol/link.h"
#include "report/incident/incident.h"
#include "report/print/people.h"

namespace rvd::report {

namespace {

Verdict complete() {
    return {State::kComplete, false, "", {}};
}

Verdict lost(State state, std::string why, std::optional<uint64_t> expected = {}) {
    return {state, true, std::move(why), expected};
}

Verdict unverified(std::string why) {
    return {State::kUnverified, false, std::move(why), {}};
}

Verdict against(uint64_t size, uint64_t expected, const std::string& detail = "") {
    const auto with_detail = [&](std::string text) {
        return detail.empty() ? text : text + ", " + detail;
    };
    Verdict verdict = complete();
    if (size < expected)
        verdict = lost(size == 0 ? State::kEmpty : State::kShort,
                       with_detail(people_size(expected - size) + " missing"));
    // The bytes that were to be saved are all there.
    if (size > expected)
        verdict = {State::kStaleTail,
                   false,
                   people_size(size - expected) + " at its end left over from an older file",
                   {}};
    verdict.expected = expected;
    return verdict;
}

// Which frame of which step the byte behind the last one belongs to.
std::string place_of(uint64_t size, const CrashLog& log) {
    for (const StepLog& step : log.steps) {
        if (step.saved && size >= *step.saved) {
            size -= *step.saved;
            continue;
        }
        const uint64_t frame = !step.saved && log.frame ? *log.frame : size / UDL_MSS + 1;
        return fmt::format("in step {}, frame {} of {}", step.number, frame, step.frames);
    }
    return fmt::format("before the first frame of step {}",
                       log.steps.empty() ? 1 : log.steps.back().number + 1);
}

class Judgement {
  public:
    Judgement(Incident& incident, const Evidence& evidence, Depth depth)
        : incident_(incident), evidence_(evidence), depth_(depth) {}

    void run() {
        for (JudgedFile& file : incident_.files) {
            if (is_kernel_log(file.file.name.kind)) take_kernel_log(file);
        }
        if (incident_.kernel_time == kNoTime && has_reference_) begin_with(reference_);
        facts_ = reference_.dump;
        // The crash text log comes first of them.
        for (JudgedFile& file : incident_.files) {
            if (!is_kernel_log(file.file.name.kind)) set(file, verdict_of(file.file));
        }
        tell_cause();
        tell_dump();
        add_missing();
    }

  private:
    static void set(JudgedFile& file, Verdict verdict) {
        file.verdict = file.file.trouble.empty() ? std::move(verdict)
                                                 : lost(State::kUnreadable, file.file.trouble);
    }

    Verdict verdict_of(File& file) {
        switch (file.name.kind) {
            case Kind::kCrashLog:
                return take_crash_log(file);
            case Kind::kInfo:
                return judge_sentence(file);
            case Kind::kDump:
                return judge_dump(file);
            default:
                return judge_region(file);
        }
    }

    void take_kernel_log(JudgedFile& file) {
        const Name& name = file.file.name;
        set(file, judge_kernel_log(file.file));
        const bool late = ends_a_dump(name.kind);
        if (!late && depth_ == Depth::kList) return;
        KernelLog log = read_kernel_log(evidence_.text(file.file));
        if (name.kind == Kind::kKernelBefore || !incident_.crash) begin_with(log);
        if (!late || file.verdict.state != State::kComplete) return;
        if (has_reference_ && name.time < reference_time_) return;
        has_reference_ = true;
        reference_time_ = name.time;
        reference_ = std::move(log);
    }

    void begin_with(const KernelLog& log) {
        if (incident_.kernel_time != kNoTime) return;
        incident_.kernel_time = log.event != kNoTime ? log.event : log.last;
        incident_.boot_step = log.boot_step;
        if (log.event != kNoTime && log.booted != kNoTime)
            incident_.since_boot = log.event - log.booted;
    }

    Verdict judge_kernel_log(File& file) const {
        if (file.size == 0) return lost(State::kEmpty, "the kernel gave no log");
        // Each save ends with one zero byte.
        if (evidence_.tail(file, 1) != std::string(1, '\0'))
            return lost(State::kShort, "its end mark is missing");
        return complete();
    }

    Verdict take_crash_log(File& file) {
        const std::string text = evidence_.text(file);
        const CrashLog said = read_crash_log(text);
        const Verdict verdict = judge_crash_text(text, said);
        // A reference that is whole knows at least as much.
        if (!has_reference_ || !reference_.dump_from_the_start) facts_ = said;
        facts_reliable_ = verdict.state == State::kComplete || has_reference_ ||
                          verdict.state == State::kUnverified;
        if (facts_.driver_version.empty()) facts_.driver_version = said.driver_version;
        if (facts_.daemon_version.empty()) facts_.daemon_version = said.daemon_version;
        return verdict;
    }

    Verdict judge_crash_text(const std::string& text, const CrashLog& said) const {
        if (text.empty()) return lost(State::kEmpty, "");
        const size_t end = said.line_ends.empty() ? 0 : said.line_ends.back();
        if (!has_reference_ || reference_.dump.lines.empty()) {
            if (end != text.size()) return lost(State::kShort, "it ends within a line");
            return unverified("no kernel log says how it ends");
        }
        const std::vector<std::string>& lines = reference_.dump.lines;
        const bool whole = reference_.dump_from_the_start;
        if (end == text.size() && said.lines.back() == lines.back() &&
            (!whole || said.lines.size() >= lines.size()))
            return complete();
        if (said.lines.size() < lines.size()) {
            return lost(State::kShort, fmt::format("{} of its {} lines missing",
                                                   lines.size() - said.lines.size(), lines.size()));
        }
        if (whole && said.lines[lines.size() - 1] == lines.back()) {
            const size_t tail = text.size() - said.line_ends[lines.size() - 1];
            return {State::kStaleTail, false,
                    people_size(tail) + " at its end left over from an older file",
                    text.size() - tail};
        }
        if (end != text.size()) return lost(State::kShort, "it ends within a line");
        return unverified("its end differs from the kernel log");
    }

    const RegionLog* region_said(const std::string& name) const {
        for (const RegionLog& region : facts_.regions) {
            if (ends_with(region.path, "/" + name)) return &region;
        }
        return nullptr;
    }

    Verdict judge_region(const File& file) const {
        const RegionLog* said = region_said(file.base());
        if (said == nullptr) return unverified("no line says how long it is");
        if (said->announced == 0 && file.size == 0)
            return {State::kEmpty, false, "the driver announced 0 bytes", 0};
        if (!said->failure.empty() || !said->saved) {
            const std::string why = said->failure.empty() ? "" : "\"" + said->failure + "\"";
            const Verdict verdict = against(file.size, said->announced, why);
            // As long as announced without the line for it.
            return verdict.lost ? verdict : lost(State::kShort, "no line says that it is complete");
        }
        return against(file.size, *said->saved);
    }

    Verdict judge_sentence(File& file) {
        const std::string text = evidence_.text(file);
        incident_.sentence = text.substr(0, 511);
        const std::string& said = reference_.sentence;
        if (text.empty())
            return lost(State::kEmpty, facts_.reason_saved ? "the driver gave no reason"
                                                           : "the dump stopped before it");
        if (!has_reference_ || said.empty()) return unverified("no kernel log has the sentence");
        if (text.compare(0, said.size(), said) == 0) return against(text.size(), said.size());
        if (said.compare(0, text.size(), text) == 0) {
            incident_.sentence = said;
            return against(text.size(), said.size());
        }
        return unverified("the kernel log has another sentence");
    }

    Verdict judge_dump(const File& file) const {
        if (facts_.dump_saved) {
            const uint64_t saved = facts_.saved();
            return against(file.size, saved, file.size < saved ? place_of(file.size, facts_) : "");
        }
        if (!facts_reliable_) return unverified("the lines about it are cut");
        if (facts_.lines.empty()) return unverified("no line says how long it is");
        if (file.size == 0) return lost(State::kEmpty, "the dump stopped before its first frame");
        const std::string place = "stopped " + place_of(file.size, facts_);
        if (reference_.dump_size && file.size < *reference_.dump_size)
            return against(file.size, *reference_.dump_size, place);
        return lost(State::kShort, place);
    }

    void tell_cause() {
        if (incident_.sentence.empty()) incident_.sentence = reference_.sentence;
        take_apart(incident_.sentence, incident_.origin, incident_.reason);
        incident_.owner = reference_.owner;
        incident_.driver_version = facts_.driver_version;
        incident_.daemon_version = facts_.daemon_version;
    }

    void tell_dump() {
        if (has_reference_) {
            incident_.stopped = reference_.failure;
            if (!reference_.failed_step.empty())
                incident_.stopped +=
                        (incident_.stopped.empty() ? "" : ", then ") + reference_.failed_step;
        } else if (!facts_.dump_saved) {
            incident_.stopped = facts_.first_failure;
        }
    }

    // Files that the daemon's lines speak of, and those that every dump leaves.
    void add_missing() {
        if (!incident_.crash) return;
        for (const std::string& path : facts_.opened)
            expect_file(path, "");
        for (size_t i = 0; i < facts_.regions.size(); i++) {
            const RegionLog& region = facts_.regions[i];
            if (!region.path.empty())
                expect_file(region.path, "");
            else
                missing(Kind::kRegion, region_name(i), "\"" + region.failure + "\"");
        }
        const auto has = [&](Kind kind) { return incident_.has(kind); };
        if (!has(Kind::kCrashLog) && (has(Kind::kInfo) || has(Kind::kDump)))
            missing(Kind::kCrashLog, "", "");
        const bool integrated = incident_.modem == "umts";
        if (integrated && !has(Kind::kKernelBefore)) missing(Kind::kKernelBefore, "", "");
        const Kind after = integrated ? Kind::kKernelAfter : Kind::kKernelDmesg;
        if (!has(after) && !has(Kind::kKernelFail))
            missing(facts_.dump_saved ? after : Kind::kKernelFail, "", "");
    }

    std::string region_name(size_t index) const {
        return index < reference_.regions.size() ? reference_.regions[index] : "region";
    }

    void expect_file(const std::string& path, const std::string& why) {
        const std::string name = path.substr(path.rfind('/') + 1);
        for (const JudgedFile& file : incident_.files) {
            if (file.file.base() == name) return;
        }
        File file;
        file.path = name;
        file.name = parse_name(name);
        incident_.files.push_back({file, lost(State::kMissing, why)});
    }

    void missing(Kind kind, const std::string& detail, const std::string& why) {
        File file;
        file.path = name_of(kind, incident_.modem, detail);
        file.name.kind = kind;
        file.name.modem = incident_.modem;
        file.name.detail = detail;
        incident_.files.push_back({file, lost(State::kMissing, why)});
    }

    Incident& incident_;
    const Evidence& evidence_;
    Depth depth_;
    KernelLog reference_;  // the kernel log saved last in this dump, where it is whole
    DeviceTime reference_time_ = 0;
    bool has_reference_ = false;
    CrashLog facts_;
    bool facts_reliable_ = true;
};

Verdict judge_records(const File& file, const Records& records, std::optional<uint64_t> expected) {
    if (file.size == 0) return unverified("no record");
    if (!records.damage.empty()) return lost(State::kShort, records.damage);
    if (file.name.kind == Kind::kOlderRecords)
        return file.size > kRecordsRotation
                       ? complete()
                       : lost(State::kShort, "shorter than a log that is put aside");
    if (!expected) return unverified("no line says how long it is");
    // Records may have come after the last line about one.
    return file.size > *expected ? unverified("longer than the last line about it says")
                                 : against(file.size, *expected);
}

Verdict judge_waiting(const std::string& text) {
    if (text.empty()) return lost(State::kEmpty, "it keeps every later record from being stored");
    const size_t brace = text.find('}');
    if (brace == std::string::npos) return lost(State::kShort, "its text has no end");
    return against(text.size(), brace + 1);
}

}  // namespace

void judge(Incident& incident, const Evidence& evidence, Depth depth) {
    Judgement(incident, evidence, depth).run();
}

Verdict judge_other(File& file, const Evidence& evidence, std::optional<uint64_t> records_size,
                    Records& records) {
    if (file.name.kind == Kind::kUnknown && file.trouble.empty())
        return {State::kUnknownName, false, "", {}};
    const std::string text = file.name.kind == Kind::kUnknown || file.name.kind == Kind::kAndroidLog
                                     ? ""
                                     : evidence.text(file);
    if (!file.trouble.empty()) return lost(State::kUnreadable, file.trouble);
    if (file.name.kind == Kind::kAndroidLog) return unverified("");
    if (file.name.kind == Kind::kWaitingRecord) return judge_waiting(text);
    records = read_records(text);
    return judge_records(file, records, records_size);
}

bool take_apart(const std::string& sentence, std::string& origin, std::string& reason) {
    constexpr std::string_view kStart = ": CP Crash by ";
    if (!starts_with(sentence, kStart)) return false;
    const std::string rest = sentence.substr(kStart.size());
    const size_t dash = rest.find(" - ");
    origin = rest.substr(0, dash);
    reason = dash == std::string::npos ? "" : rest.substr(dash + 3);
    return true;
}

const char* state_name(State state) {
    constexpr const char* kNames[] = {"complete", "unverified", "short",      "stale tail",
                                      "empty",    "missing",    "unreadable", "unknown name"};
    return kNames[static_cast<size_t>(state)];
}

}  // namespace rvd::report

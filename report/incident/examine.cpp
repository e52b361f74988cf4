// From a path to the report of it.
#include <algorithm>

#include "report/incident/incident.h"
#include "report/print/people.h"

namespace rvd::report {

namespace {

// Of one crash to the next minute: the clock may pass on between the crash and its record.
constexpr DeviceTime kSlack = 60;

// A record belongs to the last incident of its modem that began before it, if any.
void hand_out(const std::string& modem, const std::vector<Record>& records,
              std::vector<Incident>& incidents) {
    for (const Record& record : records) {
        Incident* owner = nullptr;
        for (Incident& incident : incidents) {
            if (incident.modem == modem && incident.time <= record.time) owner = &incident;
        }
        if (owner == nullptr) continue;
        DeviceTime last = owner->time;
        for (const JudgedFile& file : owner->files)
            last = std::max(last, file.file.name.time);
        if (record.time <= last + kSlack) owner->records.push_back(record);
    }
}

// By the Android log, which has every line, or by the last kernel log that has one.
std::optional<uint64_t> records_size(Report& report, const std::string& modem,
                                     const Evidence& evidence) {
    std::optional<uint64_t> size;
    const auto take = [&](Sink sink, File& file) {
        if (const auto told = read_records_size(sink, evidence.text(file))) size = told;
    };
    for (Incident& incident : report.incidents) {
        if (incident.modem != modem) continue;
        for (JudgedFile& file : incident.files) {
            if (is_kernel_log(file.file.name.kind)) take(Sink::kKernel, file.file);
        }
    }
    for (JudgedFile& file : report.others) {
        if (file.file.name.kind == Kind::kAndroidLog) take(Sink::kAndroid, file.file);
    }
    return size;
}

}  // namespace

std::vector<const JudgedFile*> Incident::lost() const {
    std::vector<const JudgedFile*> found;
    for (const JudgedFile& file : files) {
        if (file.verdict.lost) found.push_back(&file);
    }
    return found;
}

bool Incident::has(Kind kind) const {
    return std::any_of(files.begin(), files.end(),
                       [&](const JudgedFile& file) { return file.file.name.kind == kind; });
}

bool Report::anything_lost() const {
    return std::any_of(others.begin(), others.end(),
                       [](const JudgedFile& file) { return file.verdict.lost; }) ||
           std::any_of(incidents.begin(), incidents.end(),
                       [](const Incident& incident) { return !incident.lost().empty(); });
}

Report examine(Evidence& evidence, Depth depth) {
    Report report = group(evidence.take_files(), evidence.path());
    for (size_t i = 0; i < report.incidents.size(); i++) {
        judge(report.incidents[i], evidence, depth);
        show_progress(i, "incidents read");
    }
    if (depth == Depth::kList) return report;

    for (JudgedFile& file : report.others) {
        const auto size = records_size(report, file.file.name.modem, evidence);
        Records records;
        file.verdict = judge_other(file.file, evidence, size, records);
        hand_out(file.file.name.modem, records.records, report.incidents);
        if (!records.records.empty() || !records.damage.empty())
            report.records.push_back({file.file.path, std::move(records)});
    }
    return report;
}

}  // namespace rvd::report

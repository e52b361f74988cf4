#include "report/print/json.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

namespace rvd::report {

namespace {

using Json = nlohmann::ordered_json;

template <typename T>
Json or_null(const std::optional<T>& value) {
    return value ? Json(*value) : Json();
}

Json text_or_null(const std::string& text) {
    return text.empty() ? Json() : Json(text);
}

Json seconds(KernelTime time) {
    return time == kNoTime ? Json() : Json(static_cast<double>(time) / 1e6);
}

Json time_or_null(DeviceTime time) {
    return time < 0 ? Json() : Json(format_time(time));
}

std::string in_hex(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes)
        text += fmt::format("{:02x}", static_cast<unsigned char>(byte));
    return text;
}

Json file_json(const JudgedFile& judged) {
    const File& file = judged.file;
    const bool there = judged.verdict.state != State::kMissing;
    return {{"path", file.path},
            {"kind", kind_name(file.name.kind)},
            {"region", file.name.kind == Kind::kRegion ? text_or_null(file.name.detail) : Json()},
            {"size", there ? Json(file.size) : Json()},
            {"expected_size", or_null(judged.verdict.expected)},
            {"verdict", state_name(judged.verdict.state)},
            {"why", text_or_null(judged.verdict.why)},
            {"lost", judged.verdict.lost}};
}

Json files_json(const std::vector<JudgedFile>& files) {
    Json array = Json::array();
    for (const JudgedFile& file : files)
        array.push_back(file_json(file));
    return array;
}

Json record_json(const Record& record) {
    return {{"time", time_or_null(record.time)},
            {"offset", record.offset},
            {"size", record.data.size()},
            {"header", in_hex(record.header())},
            {"text", record.text()},
            {"damage", text_or_null(record.damage)}};
}

Json incident_json(const Incident& incident) {
    return {{"kind", incident.crash ? "crash" : "reset"},
            {"modem", incident.modem},
            {"type", text_or_null(incident.type)},
            {"time", format_time(incident.time)},
            {"time_to_the_minute", incident.to_the_minute},
            {"kernel_time", seconds(incident.kernel_time)},
            {"since_modem_boot", seconds(incident.since_boot)},
            {"failed_boot_step", text_or_null(incident.boot_step)},
            {"dump_tried_again", incident.again},
            {"who", text_or_null(incident.origin)},
            {"owner", or_null(incident.owner)},
            {"reason", text_or_null(incident.reason)},
            {"sentence", text_or_null(incident.sentence)},
            {"driver_version", text_or_null(incident.driver_version)},
            {"daemon_version", text_or_null(incident.daemon_version)},
            {"dump_stopped", text_or_null(incident.stopped)},
            {"files", files_json(incident.files)}};
}

Json records_json(const Report& report) {
    Json array = Json::array();
    for (const RecordFile& file : report.records) {
        Json records = Json::array();
        for (const Record& record : file.content.records)
            records.push_back(record_json(record));
        array.push_back({{"path", file.path},
                         {"damage", text_or_null(file.content.damage)},
                         {"records", records}});
    }
    return array;
}

Json entry_json(const Entry& entry) {
    if (entry.event != nullptr)
        return {{"kind", "line"},
                {"kernel_time", seconds(entry.event->at)},
                {"time", time_or_null(entry.event->clock)},
                {"text", entry.event->text},
                {"meaning", text_or_null(entry.event->meaning)},
                {"failure", entry.event->failure}};
    if (entry.kind == Entry::Kind::kStart) return {{"kind", "device start"}, {"text", entry.text}};
    const bool silence = entry.kind == Entry::Kind::kSilence;
    return {{"kind", silence ? "silence" : "repetition"},
            {"text", entry.text},
            {"seconds", seconds(entry.span)}};
}

}  // namespace

std::string json(const Report& report, const std::vector<Finding>& findings,
                 const std::vector<Entry>& timeline) {
    Json incidents = Json::array(), found = Json::array(), entries = Json::array();
    for (const Finding& finding : findings) {
        found.push_back({{"line", finding.first->text},
                         {"kernel_time", seconds(finding.first->at)},
                         {"times", finding.times},
                         {"means", finding.means}});
    }
    for (const Incident& incident : report.incidents)
        incidents.push_back(incident_json(incident));
    for (const Entry& entry : timeline)
        entries.push_back(entry_json(entry));
    const Json whole = {{"schema", kSchemaVersion},
                        {"evidence", report.path},
                        {"anything_lost", report.anything_lost()},
                        {"incidents", incidents},
                        {"other_files", files_json(report.others)},
                        {"silent_reset_records", records_json(report)},
                        {"findings", found},
                        {"timeline", entries}};
    return whole.dump(2, ' ', true, Json::error_handler_t::replace) + "\n";
}

}  // namespace rvd::report

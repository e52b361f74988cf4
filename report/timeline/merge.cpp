// One order out of many files: saves of the kernel log overlap, the other logs have no times.
#include <algorithm>
#include <memory>

#include "report/parse/words.h"
#include "report/timeline/timeline.h"

namespace rvd::report {

namespace {

// Two saves whose starts of the kernel differ by more are of two starts of the device.
constexpr DeviceTime kSameStart = 5;
// A line of a long log is looked for so far ahead.
constexpr size_t kWindow = 400;

Event event_of(const Line& line) {
    Event event;
    event.at = line.at;
    event.failure = line.fails();
    event.step = std::string(line.tag);
    event.message = std::string(line.message);
    event.text = std::string(line.whole);
    event.meaning = meaning_of(line);
    return event;
}

std::vector<Event> events_of(Sink sink, std::string_view text) {
    std::vector<Event> events;
    each_line(sink, text, [&](const Line& line) { events.push_back(event_of(line)); });
    return events;
}

// The kernel logs of one start of the device, put together save by save.
class KernelEvents {
  public:
    explicit KernelEvents(DeviceTime start) : start_(start) {}

    bool is_of(DeviceTime start) const { return std::abs(start - start_) <= kSameStart; }

    // What a later save has beyond the ones before.
    void add(std::vector<Event> later) {
        size_t known = 0;
        if (!events.empty()) {
            const KernelTime last = events.back().at;
            const auto same = std::count_if(events.begin(), events.end(),
                                            [&](const Event& event) { return event.at == last; });
            for (auto left = same; known < later.size(); known++) {
                if (later[known].at > last) break;
                if (later[known].at == last && left-- == 0) break;
            }
        }
        for (; known < later.size(); known++) {
            later[known].clock =
                    later[known].at == kNoTime ? -1 : start_ + later[known].at / 1'000'000;
            events.push_back(std::move(later[known]));
        }
    }

    std::vector<Event> events;

  private:
    DeviceTime start_;  // of the kernel, by the device's clock
};

bool same(const Event& a, const Event& b) {
    return a.text == b.text;
}

// Where `lines[i]` stands in `events` from `from` on. One that stands further ahead counts only
// where the next line follows there too.
size_t find_ahead(const std::vector<Event>& events, size_t from, const std::vector<Event>& lines,
                  size_t i, size_t window) {
    const size_t end = window < events.size() - from ? from + window : events.size();
    for (size_t at = from; at < end; at++) {
        if (!same(events[at], lines[i])) continue;
        if (at == from || i + 1 == lines.size()) return at;
        const size_t next = std::min(events.size(), at + 4);
        for (size_t follow = at + 1; follow < next; follow++) {
            if (same(events[follow], lines[i + 1])) return at;
        }
    }
    return events.size();
}

// Lines without times, put where their neighbours stand, from `from` on.
std::vector<Event> weave(std::vector<Event> events, std::vector<Event> lines, size_t from,
                         size_t window) {
    std::vector<Event> woven;
    woven.reserve(events.size() + lines.size());
    std::move(events.begin(), events.begin() + static_cast<ptrdiff_t>(from),
              std::back_inserter(woven));
    for (size_t i = 0; i < lines.size(); i++) {
        const size_t at = find_ahead(events, from, lines, i, window);
        if (at == events.size()) {
            lines[i].clock = woven.empty() ? -1 : woven.back().clock;
            woven.push_back(lines[i]);
            continue;
        }
        for (; from <= at; from++)
            woven.push_back(std::move(events[from]));
    }
    for (; from < events.size(); from++)
        woven.push_back(std::move(events[from]));
    return woven;
}

size_t first_since(const std::vector<Event>& events, DeviceTime time) {
    const auto found = std::find_if(events.begin(), events.end(),
                                    [&](const Event& event) { return event.clock >= time; });
    return static_cast<size_t>(found - events.begin());
}

std::vector<File*> kernel_logs(Report& report) {
    std::vector<File*> logs;
    for (Incident& incident : report.incidents) {
        for (JudgedFile& file : incident.files) {
            if (is_kernel_log(file.file.name.kind) && file.verdict.state != State::kMissing)
                logs.push_back(&file.file);
        }
    }
    std::stable_sort(logs.begin(), logs.end(),
                     [](const File* a, const File* b) { return a->name.time < b->name.time; });
    return logs;
}

}  // namespace

std::vector<Event> merge_lines(Report& report, const Evidence& evidence) {
    std::vector<KernelEvents> starts;
    for (File* file : kernel_logs(report)) {
        const std::string text = evidence.text(*file);
        const KernelTime last = last_kernel_time(text);
        if (last == kNoTime) continue;
        const DeviceTime start = file->name.time - last / 1'000'000;
        if (starts.empty() || !starts.back().is_of(start)) starts.emplace_back(start);
        starts.back().add(events_of(Sink::kKernel, text));
    }
    std::vector<Event> events;
    for (KernelEvents& start : starts) {
        if (!events.empty() && !start.events.empty()) start.events[0].device_started = true;
        std::move(start.events.begin(), start.events.end(), std::back_inserter(events));
    }
    for (JudgedFile& file : report.others) {
        if (file.file.name.kind == Kind::kAndroidLog)
            events = weave(std::move(events), events_of(Sink::kAndroid, evidence.text(file.file)),
                           0, kWindow);
    }
    for (Incident& incident : report.incidents) {
        for (JudgedFile& file : incident.files) {
            if (file.file.name.kind != Kind::kCrashLog || file.verdict.state == State::kMissing)
                continue;
            const size_t from = first_since(events, file.file.name.time);
            const size_t window = events.size();
            events = weave(std::move(events), events_of(Sink::kCrashLog, evidence.text(file.file)),
                           from, window);
        }
    }
    return events;
}

}  // namespace rvd::report

// What rvd-report reads. The first byte says what the rest is: a log of one of three sinks, a log
// of silent-reset records, or an archive. Whatever it holds, it is told and drawn.
#include <sys/mman.h>
#include <unistd.h>

#include "report/parse/crash_log.h"
#include "report/parse/records.h"
#include "report/parse/words.h"
#include "report/print/json.h"
#include "report/print/picture.h"
#include "report/print/screen.h"
#include "report/scenario/scenario.h"
#include "util/ScopedFd.h"

using namespace rvd::report;

namespace {

void require(bool holds) {
    if (!holds) __builtin_trap();
}

void read_log(Sink sink, const std::string& text) {
    read_crash_log(text);
    read_kernel_log(text);
    read_records_size(Sink::kKernel, text);
    std::vector<Event> events;
    each_line(sink, text, [&](const Line& line) {
        Event event;
        event.at = line.at;
        event.failure = line.fails();
        event.step = line.tag;
        event.message = line.message;
        event.text = line.whole;
        event.meaning = meaning_of(line);
        events.push_back(event);
    });
    find_troubles(events);
    if (!events.empty()) scenario({}, events);
    const std::vector<Entry> told = tell(events);
    // Nothing that a terminal or a browser would obey.
    for (const char c : screen(told, {false}) + picture(text, messages_of(told)))
        require((static_cast<unsigned char>(c) >= 0x20 || c == '\n') && c != 0x7F);
}

void read_archive(const std::string& bytes) {
    const rvd::ScopedFd file(memfd_create("archive", MFD_CLOEXEC));
    if (write(file.get(), bytes.data(), bytes.size()) < 0) return;
    try {
        Evidence evidence("/proc/self/fd/" + std::to_string(file.get()));
        Report report = examine(evidence);
        const std::vector<Event> events = merge_lines(report, evidence);
        json(report, find_troubles(events), tell(events));
        for (const Incident& incident : report.incidents) {
            for (const JudgedFile& judged : incident.files)
                require(!leads_outside(judged.file.path) || !judged.file.trouble.empty());
        }
    } catch (const Unreadable&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    const unsigned kind = data[0] % 5;
    if (kind < 3) read_log(static_cast<Sink>(kind), text);
    if (kind == 4) read_archive(text);
    if (kind != 3) return 0;
    const Records found = read_records(text);
    for (const Record& record : found.records) {
        // Each record says what is wrong with it, or is as long as its rows.
        require(record.text().size() <= record.data.size());
        require(record.damage.empty() || !found.damage.empty());
    }
    return 0;
}

// Logs of a phone: the first byte says from which sink. Whatever they hold, they are told and
// drawn.
#include "report/findings/findings.h"
#include "report/parse/crash_log.h"
#include "report/parse/words.h"
#include "report/print/picture.h"
#include "report/print/screen.h"

using namespace rvd::report;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    read_crash_log(text);
    read_kernel_log(text);
    read_records_size(Sink::kKernel, text);
    std::vector<Event> events;
    each_line(static_cast<Sink>(data[0] % 3), text, [&](const Line& line) {
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
    const std::vector<Entry> told = tell(events);
    const std::string shown = screen(told, {false}) + picture(text, messages_of(told));
    // Nothing that a terminal or a browser would obey.
    for (const char c : shown) {
        if ((static_cast<unsigned char>(c) < 0x20 && c != '\n') || c == 0x7F) __builtin_trap();
    }
    return 0;
}

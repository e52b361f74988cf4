// An archive from anywhere, examined as a whole.
#include <sys/mman.h>
#include <unistd.h>

#include "report/print/json.h"
#include "util/ScopedFd.h"

using namespace rvd::report;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const rvd::ScopedFd file(memfd_create("archive", MFD_CLOEXEC));
    if (write(file.get(), data, size) != static_cast<ssize_t>(size)) return 0;
    try {
        Evidence evidence("/proc/self/fd/" + std::to_string(file.get()));
        Report report = examine(evidence);
        const std::vector<Event> events = merge_lines(report, evidence);
        json(report, find_troubles(events), tell(events));
        for (const Incident& incident : report.incidents) {
            for (const JudgedFile& judged : incident.files) {
                if (leads_outside(judged.file.path) && judged.file.trouble.empty())
                    __builtin_trap();
            }
        }
    } catch (const Unreadable&) {
    }
    return 0;
}

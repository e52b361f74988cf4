#include "check/plan.h"

#include <inttypes.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "bootdump/BootDump.h"
#include "check/report.h"
#include "main/Container.h"
#include "protocol/ProtocolVelo.h"

namespace rvd::check {

namespace {

constexpr char kNothing[] = "/dev/null";

// Points the partition to the image, and the boot node and NV files to /dev/null.
void put_image(int image, RvdArgs& args) {
    format_text(args.boot_node, "%s", kNothing);
    format_text(args.partition_path, "/proc/self/fd/%d", image);
    for (char(*path)[kPathSize] : {&args.nv_data_path, &args.nv_norm_path}) {
        if (**path != '\0') format_text(*path, "%s", kNothing);
    }
}

// The row, named after the entry with the same offset, size and source.
Row row_of(const std_boot_args& boot, unsigned index) {
    const std_dload_control& planned = boot.dload[index];
    const auto* entry =
            std::find_if(std::begin(boot.toc), std::end(boot.toc), [&](const toc_entry& candidate) {
                return candidate.b_off == planned.b_off && candidate.size == planned.size &&
                       boot.fd[source_slot(candidate)] == planned.fd;
            });
    return {planned, entry == std::end(boot.toc) ? "" : TocName(*entry).text,
            planned.fd == boot.fd[BOOT_FD_PARTITION]};
}

// The rows of a boot, in order. The external modem's first row goes through the driver.
std::vector<Row> rows_of(const std_boot_args& boot, bool external) {
    std::vector<Row> rows;
    const auto end = static_cast<unsigned>(boot.max_stage) + (external ? 0 : 1);
    for (unsigned i = external ? 0 : boot.first_stage; i < std::min(end, kDloadStages); ++i)
        rows.push_back(row_of(boot, i));
    return rows;
}

struct Span {
    uint64_t begin, end;
    std::string name;
};

std::vector<std::string> overlaps(std::vector<Span>& spans, const char* where) {
    std::vector<std::string> found;
    std::sort(spans.begin(), spans.end(),
              [](const Span& a, const Span& b) { return a.begin < b.begin; });
    for (size_t i = 0; i < spans.size(); ++i) {
        for (size_t j = i + 1; j < spans.size() && spans[j].begin < spans[i].end; ++j) {
            const uint64_t shared = std::min(spans[i].end, spans[j].end) - spans[j].begin;
            found.push_back(text("%s and %s share %" PRIu64 " bytes of %s", spans[i].name.c_str(),
                                 spans[j].name.c_str(), shared, where));
        }
    }
    return found;
}

std::string cut_off(const Span& span, uint64_t size) {
    return text("%s is cut off: it ends at byte %" PRIu64 " of %" PRIu64, span.name.c_str(),
                span.end, size);
}

// Finds rows that cannot be loaded whatever the driver answers, and rows that overlap in memory.
void examine_rows(Plan& plan, uint64_t size, bool has_memory) {
    std::vector<Span> memory;
    for (const Row& row : plan.rows) {
        const std::string name =
                text("stage %u%s%s", row.stage, row.name.empty() ? "" : " ", row.name.c_str());
        const bool sends = row.stage_start == 0 || row.send_bin != 0;
        if (sends && row.fd < 0) plan.refusals.push_back(name + " has no image");
        const Span span = {row.b_off, uint64_t{row.b_off} + row.size, name};
        if (row.in_partition && span.end > size) plan.refusals.push_back(cut_off(span, size));
        if (row.size > 0) memory.push_back({row.m_off, uint64_t{row.m_off} + row.size, name});
    }
    if (has_memory) plan.overlaps = overlaps(memory, "modem memory");
}

}  // namespace

std::vector<Entry> read_table(int image) {
    toc_entry table[kTocEntries] = {};
    std::vector<Entry> entries;
    if (pread(image, table, sizeof(table), 0) <= 0) return entries;
    const uint32_t count = table[0].toc_count;
    const bool counted = count > kTocUncounted && count <= kTocEntries;
    for (unsigned i = 0; i < (counted ? count : kTocEntries); ++i) {
        if (!counted && table[i].name[0] == '\0') continue;
        entries.push_back({table[i], i, source_slot(table[i]) == BOOT_FD_PARTITION});
    }
    return entries;
}

uint64_t size_of(int image) {
    const off_t end = lseek(image, 0, SEEK_END);
    return end < 0 ? 0 : static_cast<uint64_t>(end);
}

Plan make_plan(int image, cp_boot_mode mode, Capture& lines) {
    RvdArgs& args = *Container::getRvdArgs();
    BootDump& modem = *Container::getBootDump();
    const RvdArgs before = args;
    const bool external = args.modem_type == MODEM_TYPE_VK880;
    static ProtocolVelo protocol;  // the plan asks it for the protected NV file
    if (Container::getProtocol() == nullptr) Container::setProtocol(&protocol);
    put_image(image, args);
    lines.take();
    Plan plan;
    const bool accepted = modem.prepare_boot_args(mode);
    if (accepted) plan.rows = rows_of(*modem.getStdBoot(), external);
    modem.std_boot_close_args();
    args = before;
    if (accepted)
        examine_rows(plan, size_of(image), !external);
    else
        plan.refusals = failures(lines.take());
    return plan;
}

Layout lay_out(int image, const std::vector<Entry>& table) {
    Layout layout;
    const uint64_t size = size_of(image);
    std::vector<Span> spans;
    for (const Entry& entry : table) {
        if (entry.size == 0 || !entry.in_partition) continue;
        spans.push_back({entry.b_off, uint64_t{entry.b_off} + entry.size, TocName(entry).text});
        if (spans.back().end > size) layout.beyond.push_back(cut_off(spans.back(), size));
    }
    layout.overlaps = overlaps(spans, "the image");
    spans.push_back({size, size, "the end"});
    uint64_t covered = 0;
    for (const Span& span : spans) {
        if (span.begin > covered)
            layout.gaps.push_back(text("0x%08" PRIx64 " to 0x%08" PRIx64 ", before %s", covered,
                                       span.begin, span.name.c_str()));
        covered = std::max(covered, span.end);
    }
    return layout;
}

std::vector<std::string> failures(const std::vector<std::string>& lines) {
    std::vector<std::string> found;
    for (const std::string& line : lines) {
        if (line.find("ERR!") != std::string::npos) found.push_back(line);
    }
    if (found.empty() && !lines.empty()) found.push_back(lines.back());
    return found;
}

}  // namespace rvd::check

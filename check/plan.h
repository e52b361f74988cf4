// A firmware image: its table of contents, the boot that the daemon plans from it, and the layout
// of its entries.
#pragma once

#include <string>
#include <vector>

#include "bootdump/StdArgs.h"
#include "check/capture.h"

namespace rvd::check {

struct Entry : toc_entry {
    unsigned index;
    bool in_partition;  // false: in an NV file
};

// The table at the start of an image: as many entries as it counts, or every named one if it has no
// valid count. Empty if the image cannot be read.
std::vector<Entry> read_table(int image);

struct Row : std_dload_control {
    std::string name;
    bool in_partition;
};

struct Plan {
    std::vector<Row> rows;              // empty if the daemon refuses the table
    std::vector<std::string> refusals;  // the daemon's error lines, or why the load will fail
    std::vector<std::string> overlaps;  // of images in modem memory
};

// Plans a boot of the modem in the registry's arguments. Opens neither a node nor an NV file.
Plan make_plan(int image, cp_boot_mode mode, Capture& lines);

// Gaps between the entries, entries that overlap, entries that end beyond the image.
struct Layout {
    std::vector<std::string> gaps, overlaps, beyond;
};
uint64_t size_of(int image);
Layout lay_out(int image, const std::vector<Entry>& table);

// The error lines, the cause first; the last line if there are none.
std::vector<std::string> failures(const std::vector<std::string>& lines);

}  // namespace rvd::check

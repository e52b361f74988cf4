// A firmware image as the daemon sees it: its table of contents, the boot that it plans from it,
// and the layout of the entries.
#pragma once

#include <string>
#include <vector>

#include "bootdump/StdArgs.h"
#include "check/capture.h"

namespace rvd::check {

struct Entry : toc_entry {
    unsigned index;
    bool in_partition;  // and not in an NV file
};

// The table at the head of an image, as far as it counts its entries; all of them where it does not
// or where the number is none. Empty where nothing can be read.
std::vector<Entry> read_table(int image);

struct Row : std_dload_control {
    std::string name;
    bool in_partition;
};

struct Plan {
    std::vector<Row> rows;              // empty where the daemon refuses the table
    std::vector<std::string> refusals;  // the daemon's lines, or what its load will come upon
    std::vector<std::string> overlaps;  // in modem memory, of images that are loaded there
};

// Plans a boot of the modem that the arguments in the registry name. Neither a node nor an NV file
// is touched.
Plan make_plan(int image, cp_boot_mode mode, Capture& lines);

// Gaps between the entries, entries that overlap, entries that the image's end cuts off.
struct Layout {
    std::vector<std::string> gaps, overlaps, beyond;
};
uint64_t size_of(int image);
Layout lay_out(int image, const std::vector<Entry>& table);

// The lines of errors, the cause first; where there are none, the last line.
std::vector<std::string> failures(const std::vector<std::string>& lines);

}  // namespace rvd::check

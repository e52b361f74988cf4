// The firmware partition of the virtual phone: its table of contents and its images, and where each
// image's true bytes are to be found.
#pragma once

#include <string>
#include <vector>

#include "bootdump/toc.h"
#include "lab/scenario/scenario.h"

namespace rvd::lab {

std::string image_name(const toc_entry& entry);

class Partition {
  public:
    // `root` is the directory that is the phone's "/".
    Partition(const Scenario& scenario, std::string root);

    // Makes the partition and, where the scenario has one, the NV file.
    void write() const;

    const std::vector<toc_entry>& table() const { return table_; }

    // The entry with these values as a loader request carries them, or null.
    const toc_entry* find(uint32_t m_off, uint32_t b_off, uint32_t size) const;
    const toc_entry* find(const char* name) const;

    // Whether `bytes` are what the image's own file holds from `offset` of the image on.
    bool holds(const toc_entry& entry, uint64_t offset, const void* bytes, size_t size) const;

  private:
    std::string source_of(const toc_entry& entry) const;

    const Scenario& scenario_;
    std::string root_;
    std::vector<toc_entry> table_;
};

}  // namespace rvd::lab

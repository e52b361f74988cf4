// The modem's content: the firmware partition and the seeds of memory regions and crash dump.
#pragma once

#include <string>
#include <vector>

#include "bootdump/toc.h"
#include "lab/scenario/scenario.h"

namespace rvd::lab {

constexpr char kPartitionPath[] = "/dev/block/by-name/modem";

std::string image_name(const toc_entry& entry);

// Seed (for fill_seeded) and size of the "dump" or of a region. Throws Error for any other name.
struct Content {
    uint64_t seed, size;
};
Content content_of(const Scenario& scenario, const std::string& name);

class Partition {
  public:
    // `root` is the directory that is the phone's "/".
    Partition(const Scenario& scenario, std::string root);

    // Writes the partition (empty if a real image will be mounted over it) and the NV file, if the
    // scenario has one.
    void write() const;

    // The real image to use as the partition, or "".
    const std::string& image() const { return scenario_.firmware.image; }

    const std::vector<toc_entry>& table() const { return table_; }

    // The first entry with these values or this name, or null.
    const toc_entry* find(uint32_t m_off, uint32_t b_off, uint32_t size) const;
    const toc_entry* find(const char* name) const;

    // Whether an image's file holds these bytes at the image's offset.
    bool holds(const toc_entry& entry, const Packet& bytes) const;

  private:
    void read_table();
    void generate_table();
    void write_images() const;

    const Scenario& scenario_;
    const std::string partition_path_, nv_path_;
    std::vector<toc_entry> table_;
};

}  // namespace rvd::lab

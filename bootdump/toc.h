// The table of contents at the start of the modem's firmware partition.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace rvd {

#pragma pack(push, 1)
struct toc_entry {
    char name[12];       // NUL-terminated unless all 12 bytes are used
    uint32_t b_off;      // offset of the image in its source file
    uint32_t m_off;      // offset of the image in modem memory (low 30 bits)
    uint32_t size;       // bytes
    uint32_t crc;        // passed to the modem, which checks it
    uint32_t toc_count;  // entry 0 only: number of entries
};
#pragma pack(pop)
static_assert(sizeof(toc_entry) == 32 && offsetof(toc_entry, b_off) == 12 &&
              offsetof(toc_entry, m_off) == 16 && offsetof(toc_entry, size) == 20 &&
              offsetof(toc_entry, crc) == 24 && offsetof(toc_entry, toc_count) == 28);

constexpr unsigned kTocEntries = 16;
constexpr uint32_t kTocUncounted = 1;  // `toc_count` of a table that does not count its entries
constexpr uint32_t kModemOffsetMask = 0x3FFFFFFF;

// Entry names with a special meaning; any other entry is an image in the partition.
constexpr char kTocName[] = "TOC";
constexpr char kTocBoot[] = "BOOT";
constexpr char kTocMain[] = "MAIN";
constexpr char kTocVss[] = "VSS";
constexpr char kTocNv[] = "NV";
constexpr char kTocNvNorm[] = "NV_NORM";
constexpr char kTocNvProt[] = "NV_PROT";
constexpr char kTocOffset[] = "OFFSET";

inline bool has_name(const toc_entry& entry, const char* name) {
    return strncmp(entry.name, name, sizeof(entry.name)) == 0;
}

// An entry's name with a terminator, which the field lacks if the name fills it.
struct TocName {
    explicit TocName(const toc_entry& entry) { memcpy(text, entry.name, sizeof(entry.name)); }

    char text[sizeof(toc_entry::name) + 1] = {};
};

}  // namespace rvd

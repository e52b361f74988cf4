#include "lab/modem/firmware.h"

#include <fcntl.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numeric>

#include "check/plan.h"

namespace rvd::lab {

namespace {

constexpr uint32_t kLargestImage = 1u << 30;  // larger entries have no content
constexpr uint32_t kFirstModemOffset = 0x1000, kPage = 0x1000;
constexpr uint32_t kFirstCrc = 0xC0DE0000;
constexpr uint64_t kNvSeed = 1000, kDumpSeed = 2000;

bool is_nv(const toc_entry& entry) {
    return has_name(entry, kTocNv) || has_name(entry, kTocNvNorm) || has_name(entry, kTocNvProt);
}

uint32_t word(const std::optional<int64_t>& given, int64_t otherwise) {
    return static_cast<uint32_t>(given.value_or(otherwise));
}

void put_seeded(std::ofstream& file, uint64_t seed, uint32_t offset, uint64_t size) {
    Packet bytes(size);
    fill_seeded(seed, 0, bytes.data(), size);
    file.seekp(offset).write(reinterpret_cast<char*>(bytes.data()), static_cast<ssize_t>(size));
}

void finish(std::ofstream& file, const std::string& path) {
    if (!file.flush()) throw_errno("cannot write " + path);
}

}  // namespace

std::string image_name(const toc_entry& entry) {
    return TocName(entry).text;
}

Content content_of(const Scenario& scenario, const std::string& name) {
    const auto seed = static_cast<uint64_t>(scenario.seed);
    const auto& steps = scenario.dump.steps;
    if (name == "dump") {
        const int64_t size = std::accumulate(steps.begin(), steps.end(), int64_t{0});
        return {seed + kDumpSeed, static_cast<uint64_t>(size)};
    }
    const auto region = scenario.driver.regions.find(name);
    if (region == scenario.driver.regions.end())
        throw Error("no region or dump is called \"" + name + "\"");
    return {seed + std::hash<std::string>()(name), static_cast<uint64_t>(region->second.size)};
}

Partition::Partition(const Scenario& scenario, std::string root)
    : scenario_(scenario),
      partition_path_(root + kPartitionPath),
      nv_path_(root + scenario.nv_path()) {
    if (image().empty()) {
        generate_table();
    } else {
        read_table();
    }
}

void Partition::read_table() {
    const ScopedFd fd(open(image().c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) throw_errno(image());
    for (const check::Entry& entry : check::read_table(fd.get()))
        table_.push_back(entry);
    if (table_.empty()) throw Error(image() + ": no table of contents");
}

// An entry without an offset follows the one before it; NV data has a file of its own.
void Partition::generate_table() {
    uint32_t b_off = kTocEntries * sizeof(toc_entry), m_off = kFirstModemOffset;
    for (const FirmwareEntry& given : scenario_.firmware.entries) {
        toc_entry entry{};
        given.name.copy(entry.name, sizeof(entry.name));
        const bool inside = !table_.empty() && !is_nv(entry);
        entry.size = word(given.size, 512);
        entry.b_off = word(given.b_off, inside ? b_off : 0);
        entry.m_off = word(given.m_off, m_off);
        entry.crc = word(given.crc, kFirstCrc + static_cast<uint32_t>(table_.size()));
        table_.push_back(entry);
        if (entry.size >= kLargestImage) continue;
        if (inside) b_off = entry.b_off + entry.size;
        m_off += (entry.size + kPage - 1) / kPage * kPage;
    }
    table_[0].toc_count = static_cast<uint32_t>(table_.size());
}

void Partition::write_images() const {
    const auto seed = static_cast<uint64_t>(scenario_.seed);
    std::ofstream file(partition_path_, std::ios::binary);
    for (size_t i = 1; i < table_.size(); i++) {
        if (!is_nv(table_[i]) && table_[i].size < kLargestImage)
            put_seeded(file, seed + i, table_[i].b_off, table_[i].size);
    }
    const size_t table_size = std::min<size_t>(table_.size(), kTocEntries) * sizeof(toc_entry);
    file.seekp(0).write(reinterpret_cast<const char*>(table_.data()),
                        static_cast<ssize_t>(table_size));
    finish(file, partition_path_);
    if (const auto end = scenario_.firmware.truncate)
        std::filesystem::resize_file(partition_path_, static_cast<uint64_t>(*end));
}

void Partition::write() const {
    if (image().empty()) {
        write_images();
    } else {
        write_file(partition_path_, "");
    }
    const toc_entry* nv = find(kTocNv);
    const bool has_bytes = nv != nullptr && nv->size < kLargestImage;
    const int64_t nv_size =
            scenario_.firmware.nv_size.value_or(has_bytes ? int64_t{nv->b_off} + nv->size : -1);
    if (nv_size < 0) return;
    std::ofstream nv_file(nv_path_, std::ios::binary);
    put_seeded(nv_file, static_cast<uint64_t>(scenario_.seed) + kNvSeed, 0,
               static_cast<uint64_t>(nv_size));
    finish(nv_file, nv_path_);
}

const toc_entry* Partition::find(uint32_t m_off, uint32_t b_off, uint32_t size) const {
    for (const toc_entry& entry : table_) {
        if ((entry.m_off & kModemOffsetMask) == m_off && entry.b_off == b_off && entry.size == size)
            return &entry;
    }
    return nullptr;
}

const toc_entry* Partition::find(const char* name) const {
    for (const toc_entry& entry : table_) {
        if (has_name(entry, name)) return &entry;
    }
    return nullptr;
}

bool Partition::holds(const toc_entry& entry, const Packet& bytes) const {
    std::ifstream file(is_nv(entry) ? nv_path_ : partition_path_, std::ios::binary);
    Packet content(bytes.size());
    file.seekg(entry.b_off)
            .read(reinterpret_cast<char*>(content.data()), static_cast<ssize_t>(content.size()));
    return file.good() && content == bytes;
}

}  // namespace rvd::lab

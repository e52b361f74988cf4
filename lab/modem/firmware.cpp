#include "lab/modem/firmware.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

namespace rvd::lab {

namespace {

constexpr char kPartitionPath[] = "/dev/block/by-name/modem";
constexpr uint64_t kLargestImage = 1u << 30;  // beyond it an entry is nonsense and has no bytes
constexpr uint32_t kFirstModemOffset = 0x1000;
constexpr size_t kPiece = 64 << 10;
constexpr uint64_t kNvSeed = 1000;

bool is_nv(const toc_entry& entry) {
    return has_name(entry, kTocNv) || has_name(entry, kTocNvNorm) || has_name(entry, kTocNvProt);
}

void write_seeded(int fd, uint64_t seed, uint64_t place, uint64_t size) {
    std::vector<uint8_t> piece(kPiece);
    for (uint64_t done = 0; done < size; done += kPiece) {
        const size_t take = std::min<uint64_t>(kPiece, size - done);
        fill_seeded(seed, done, piece.data(), take);
        if (pwrite(fd, piece.data(), take, static_cast<off_t>(place + done)) < 0)
            fail_errno("cannot fill an image");
    }
}

int create(const std::string& path) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) fail_errno("cannot create " + path);
    return fd;
}

}  // namespace

std::string image_name(const toc_entry& entry) {
    return {entry.name, strnlen(entry.name, sizeof(entry.name))};
}

Partition::Partition(const Scenario& scenario, std::string root)
    : scenario_(scenario), root_(std::move(root)) {
    uint32_t b_off = kTocEntries * sizeof(toc_entry);
    uint32_t m_off = kFirstModemOffset;
    for (const FirmwareEntry& given : scenario.firmware.entries) {
        const bool first = table_.empty();
        toc_entry entry{};
        memcpy(entry.name, given.name.data(), std::min(given.name.size(), sizeof(entry.name)));
        entry.size = static_cast<uint32_t>(given.size.value_or(512));
        entry.b_off =
                static_cast<uint32_t>(given.b_off.value_or(first || is_nv(entry) ? 0 : b_off));
        entry.m_off = static_cast<uint32_t>(given.m_off.value_or(m_off));
        entry.crc = static_cast<uint32_t>(
                given.crc.value_or(static_cast<int64_t>(0xC0DE0000u + table_.size())));
        if (!first && !is_nv(entry) && entry.size < kLargestImage) b_off = entry.b_off + entry.size;
        if (entry.size < kLargestImage) m_off += (entry.size + 0xFFF) & ~0xFFFu;
        table_.push_back(entry);
    }
    table_[0].toc_count = static_cast<uint32_t>(table_.size());
}

void Partition::write() const {
    const int fd = create(root_ + kPartitionPath);
    const toc_entry* nv = nullptr;
    for (size_t i = 0; i < table_.size(); i++) {
        const toc_entry& entry = table_[i];
        if (has_name(entry, kTocNv)) nv = &entry;
        if (i > 0 && !is_nv(entry) && entry.size < kLargestImage)
            write_seeded(fd, static_cast<uint64_t>(scenario_.seed) + i, entry.b_off, entry.size);
    }
    const size_t table_size = std::min<size_t>(table_.size(), kTocEntries) * sizeof(toc_entry);
    if (pwrite(fd, table_.data(), table_size, 0) < 0) fail_errno("cannot write the table");
    if (scenario_.firmware.truncate &&
        ftruncate(fd, static_cast<off_t>(*scenario_.firmware.truncate)) != 0)
        fail_errno("cannot cut the partition");
    close(fd);

    const int64_t nv_size =
            scenario_.firmware.nv_size.value_or(nv ? int64_t{nv->b_off} + nv->size : -1);
    if (nv_size < 0) return;
    const int nv_fd = create(root_ + scenario_.nv_path());
    write_seeded(nv_fd, static_cast<uint64_t>(scenario_.seed) + kNvSeed, 0,
                 static_cast<uint64_t>(nv_size));
    close(nv_fd);
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

std::string Partition::source_of(const toc_entry& entry) const {
    return root_ + (is_nv(entry) ? scenario_.nv_path() : kPartitionPath);
}

bool Partition::holds(const toc_entry& entry, uint64_t offset, const void* bytes,
                      size_t size) const {
    const int fd = open(source_of(entry).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const auto* wanted = static_cast<const uint8_t*>(bytes);
    uint8_t piece[kPiece];
    size_t done = 0;
    while (done < size) {
        const ssize_t n = pread(fd, piece, std::min(kPiece, size - done),
                                static_cast<off_t>(entry.b_off + offset + done));
        if (n <= 0 || memcmp(piece, wanted + done, static_cast<size_t>(n)) != 0) break;
        done += static_cast<size_t>(n);
    }
    close(fd);
    return done == size;
}

}  // namespace rvd::lab

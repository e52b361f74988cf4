// The images that the driver loads into the modem's memory, each compared with its file.
#pragma once

#include <fmt/format.h>

#include <map>

#include "bootdump/lnkm.h"
#include "lab/modem/modem.h"

namespace rvd::lab {

class Images : private ModelContext {
  public:
    explicit Images(const ModelContext& context) : ModelContext(context) {}

    // Loads a chunk; false if the daemon's memory cannot be read. The integrated modem's images
    // come in chunks, the external modem's boot loader in one piece.
    bool load(const cp_image& chunk, const Memory& memory) {
        const uint64_t len = scenario.external() ? chunk.size : chunk.len;
        if (!continues(chunk, len) && !begin(chunk)) return true;
        if (chunk.m_offset + len > uint64_t{kModemOffsetMask} + 1 ||
            bytes_.size() + len > chunk.size) {
            story.violation("a chunk exceeds its image or the modem's memory");
            return true;
        }
        Packet bytes(len);
        if (!memory.read(chunk.image_addr, bytes.data(), len)) return false;
        bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
        story.advance_transfer(len);
        if (complete() && !checked_) check_content();
        return true;
    }

    void check(const cp_security_req& req) {
        const auto& table = partition.table();
        const auto found = loaded_.find(req.param1);
        switch (req.mode) {
            case SECURITY_NON_SECURE:
                if (req.param1 != 0 || req.param2 != 0)
                    story.violation("the non-secure request takes no parameters");
                break;
            case SECURITY_SECURE:
            case SECURITY_DUMP:
                if (table.size() < 2 || req.param1 != table[1].size)
                    story.violation("a security request has a wrong size of the boot image");
                verified_ = true;
                break;
            case SECURITY_TOC:
            case SECURITY_VSS:
                if (req.param2 != 0 && (found == loaded_.end() || found->second != req.param2))
                    story.violation("a security request for an image that was never loaded");
                break;
            default:
                story.violation("a security request has an unknown mode");
        }
    }

    void reset() { image_ = nullptr, verified_ = false; }
    bool complete() const { return image_ != nullptr && bytes_.size() == image_->size; }
    bool verified() const { return verified_; }

  private:
    // Whether a chunk is the next one of the current image.
    bool continues(const cp_image& chunk, uint64_t len) const {
        return image_ != nullptr && !scenario.external() && chunk.size == first_.size &&
               chunk.b_offset == first_.b_offset && chunk.mode == first_.mode &&
               chunk.m_offset == first_.m_offset + bytes_.size() &&
               (bytes_.size() < chunk.size || len == 0);
    }

    bool begin(const cp_image& first) {
        if (image_ != nullptr && !complete())
            story.violation(image_name(*image_) + " was left incomplete");
        image_ = scenario.external() ? partition.find(kTocBoot)
                                     : partition.find(first.m_offset, first.b_offset, first.size);
        if (image_ == nullptr || image_->size != first.size) {
            story.violation("a chunk belongs to no image of the table");
            image_ = nullptr;
            return false;
        }
        first_ = first;
        bytes_.clear();
        checked_ = false;
        story.begin_transfer("image " + image_name(*image_), first.size);
        return true;
    }

    void check_content() {
        checked_ = true;
        const std::string name = image_name(*image_);
        const uint32_t m_offset = first_.m_offset;  // a copy: fmt cannot bind a packed member
        story.add_message("daemon", "driver",
                          fmt::format("image {}, {} to 0x{:08x} of modem memory", name,
                                      human_size(bytes_.size()), m_offset));
        if (!partition.holds(*image_, bytes_))
            story.violation(name + " in modem memory differs from its file");
        loaded_[m_offset] = first_.size;
    }

    const toc_entry* image_ = nullptr;  // the current or the last one
    bool checked_ = false, verified_ = false;
    cp_image first_{};  // its first chunk
    Packet bytes_;
    std::map<uint32_t, uint32_t> loaded_;  // size of each complete image by m_offset
};

}  // namespace rvd::lab

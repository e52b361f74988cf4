// The images that the driver takes into the modem's memory, each held against its file.
#pragma once

#include <map>

#include "bootdump/lnkm.h"
#include "lab/modem/modem.h"

namespace rvd::lab {

class Images : private Scene {
  public:
    explicit Images(const Scene& scene) : Scene(scene) {}

    // Takes a chunk; false where it cannot be read.
    bool load(const cp_image& chunk, const Memory& memory);

    void check(const cp_security_req& req);

    void expect_others() { image_ = nullptr, verified_ = false; }
    bool complete() const { return image_ != nullptr && bytes_.size() == image_->size; }
    bool verified() const { return verified_; }

  private:
    bool begin(const cp_image& first);
    void end();

    const toc_entry* image_ = nullptr;  // being loaded, or loaded last
    bool ended_ = false, verified_ = false;
    cp_image first_{};  // its first chunk
    Packet bytes_;
    std::map<uint32_t, uint32_t> loaded_;  // sizes of the complete ones by place
};

}  // namespace rvd::lab

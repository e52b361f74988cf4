// The modem's boot loader while it runs. It receives images over the boot node, sends crash dumps
// over the dump node, and checks every word and byte of the daemon's. The scenario can make it
// deviate from the protocol at any packet that it sends.
#pragma once

#include "bootdump/lnkm.h"
#include "lab/modem/modem.h"

namespace rvd::lab {

class Loader {
  public:
    explicit Loader(Node used) : node(used) {}
    virtual ~Loader() = default;

    virtual void receive(const Packet& packet) = 0;
    virtual bool next_packet(Packet& packet) = 0;
    virtual bool finished() const = 0;  // the boot or dump is complete

    const Node node;
};

std::unique_ptr<Loader> start_loader(const ModelContext& context, cp_boot_mode mode);

}  // namespace rvd::lab

// The modem's boot loader while it runs: takes images over the boot node, serves crash dumps on the
// dump node, and holds the daemon to the protocol word by word and byte by byte. At the packets
// that the scenario names it misbehaves.
#pragma once

#include "bootdump/lnkm.h"
#include "lab/modem/modem.h"

namespace rvd::lab {

class Loader {
  public:
    explicit Loader(Node served) : node(served) {}
    virtual ~Loader() = default;

    virtual void receive(const Packet& packet) = 0;
    virtual bool next_packet(Packet& packet) = 0;
    virtual bool finished() const = 0;  // the boot or dump is complete

    const Node node;
};

std::unique_ptr<Loader> start_loader(const ModelContext& context, cp_boot_mode mode);

}  // namespace rvd::lab

// The modem's boot loader: takes images over the boot node, serves crash dumps on the dump node,
// and holds the daemon to the protocol word by word and byte by byte. Where the scenario says so it
// misbehaves, at exactly the packet named.
#pragma once

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "bootdump/lnkm.h"
#include "lab/modem/firmware.h"
#include "lab/modem/modem.h"
#include "lab/run/story.h"
#include "protocol/link.h"

namespace rvd::lab {

class Loader {
  public:
    Loader(const Scenario& scenario, const Partition& partition, Stage& stage, Story& story)
        : scenario_(scenario), partition_(partition), stage_(stage), story_(story) {}

    void start(cp_boot_mode mode);
    void stop();

    // The download came to its end as this modem's table has it.
    bool finished() const { return running_ && step_ == plan_.size(); }

    void receive(Node node, const Packet& packet);
    bool next(Node node, Packet& packet);

    // Bytes that all dump steps carry; the dump file must be fill_seeded(dump_seed()) of that size.
    uint64_t dump_size() const;
    uint64_t dump_seed() const { return static_cast<uint64_t>(scenario_.seed) + 2000; }

  private:
    enum class Kind { word, optional_word, frames, crc, dump_start, dump_step };

    // One thing that the loader waits for.
    struct Expected {
        Kind kind;
        uint32_t word;
        const toc_entry* entry = nullptr;
    };

    struct Outgoing {
        Packet packet;
        Time due;
        const Quirk* end = nullptr;  // instead of the packet: silence or a hang-up
    };

    void plan_handshake();
    void plan_download();
    void plan_row(uint32_t stage, const toc_entry& entry);
    void plan_dump();

    bool accept_word(const Packet& packet, const Expected& expected);
    void accept_frame(const Packet& packet, const Expected& expected);
    void image_done(const Expected& expected);
    void wrong(const Packet& packet);

    void announce_dump();
    void begin_step(uint32_t step);
    bool next_frame(Packet& packet);

    // Sends a packet, or what the scenario makes of it.
    void send(const std::string& name, Packet packet);
    void send_word(uint32_t word);
    const Quirk* quirk_for(const std::string& name);

    const Scenario& scenario_;
    const Partition& partition_;
    Stage& stage_;
    Story& story_;

    bool running_ = false, silent_ = false;
    Node node_ = Node::boot;
    std::vector<Expected> plan_;
    size_t step_ = 0;  // what is waited for next
    std::deque<Outgoing> outgoing_;
    int generation_ = 0;

    // The image that is coming in.
    Packet image_;
    uint32_t image_frames_ = 0;

    // The dump step that is going out.
    uint32_t dump_step_ = 0, frame_ = 0;
    uint64_t step_begin_ = 0, step_size_ = 0;
};

}  // namespace rvd::lab

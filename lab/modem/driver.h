// The modem's driver: answers every request of both nodes, keeps the modem's state and memory, and
// checks what it is asked to do the way a real one relies on it: order, sizes, and that modem
// memory holds what the firmware partition holds.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "bootdump/lnkm.h"
#include "lab/modem/firmware.h"
#include "lab/modem/loader.h"
#include "lab/modem/modem.h"
#include "lab/run/story.h"

namespace rvd::lab {

// The names of all requests.
std::vector<std::string> request_names();

class Driver : public Modem {
  public:
    Driver(const Scenario& scenario, const Partition& partition, Stage& stage, Story& story);
    ~Driver() override;

    int64_t request(Node node, unsigned long number, uint64_t argument, Memory& memory) override;
    void lost(unsigned long number) override;
    void received(Node node, const Packet& packet) override { loader_.receive(node, packet); }
    bool next(Node node, Packet& packet) override;

    // The modem itself changes state: the boot node hangs up until the status is read.
    void change_state(int state);

    // The device went through a reboot.
    void reboot();

    // How often each request was made, by name: what a scenario's answers count by. Handed on where
    // a run goes on after the machine went down.
    using Times = std::map<std::string, int>;
    const Times& times() const { return times_; }
    void recall(Times times);

    const Loader& loader() const { return loader_; }

    // Seed of a region's content by its name.
    uint64_t region_seed(const std::string& name) const;

  private:
    friend std::vector<std::string> request_names();

    // What one request is about: its words for the story, and whether it is to fail.
    struct Call {
        Node node;
        uint64_t argument;
        Memory& memory;
        bool refused = false;
        bool shown = true;
        std::string detail;
    };
    using Serve = int64_t (Driver::*)(Call&);
    struct Handler {
        unsigned long number;
        const char* name;
        bool boot, dump;  // where it is issued
        bool strict;      // any result but 0 is a failure
        Serve serve;
    };
    static const Handler kHandlers[];

    int64_t power_on(Call& call);
    int64_t power_off(Call& call);
    int64_t power_reset(Call& call);
    int64_t start_loader(Call& call);
    int64_t complete(Call& call);
    int64_t status(Call& call);
    int64_t panic(Call& call);
    int64_t load_image(Call& call);
    int64_t get_srinfo(Call& call);
    int64_t set_srinfo(Call& call);
    int64_t notify_fail(Call& call);
    int64_t notify_done(Call& call);
    int64_t log_dump(Call& call);
    int64_t check_security(Call& call);
    int64_t crash_reason(Call& call);
    int64_t version(Call& call);

    const Answer* answer_for(const std::string& name);
    int64_t take_chunk(const cp_image& image, Call& call);
    bool begin_image(const cp_image& image);
    void end_image();
    void notify(bool done);

    const Scenario& scenario_;
    const Partition& partition_;
    Stage& stage_;
    Story& story_;
    Loader loader_;

    int state_;
    bool powered_ = false, verified_ = false;
    enum class Due { nothing, done, fail } notification_ = Due::nothing;
    Times times_;

    uint8_t* modem_memory_;
    const toc_entry* image_ = nullptr;  // the image being loaded, or loaded last
    cp_image first_chunk_{};
    uint64_t image_bytes_ = 0;
    unsigned chunks_ = 0;
    std::map<uint32_t, uint32_t> loaded_;  // complete images: place and size

    std::string region_;
    uint64_t region_sent_ = 0, region_end_ = 0;
};

}  // namespace rvd::lab

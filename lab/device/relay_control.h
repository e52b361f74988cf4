// The control node of the relay module (lab/kernel): events are taken from it and orders given, in
// the words of lab/kernel/relay.h. An order for a caller or a descriptor that has gone meanwhile is
// no error: both go when they like.
#pragma once

#include <string>

#include "lab/kernel/relay.h"
#include "lab/modem/modem.h"

namespace rvd::lab {

class RelayControl {
  public:
    struct Event {
        relay_event head;
        Packet data;
    };
    enum class Delivery { done, full, gone };

    // Takes hold of the control node. Throws Unable where there is none or somebody has it.
    RelayControl();
    ~RelayControl();
    RelayControl(const RelayControl&) = delete;
    RelayControl& operator=(const RelayControl&) = delete;

    // Readable while there are events.
    int fd() const { return fd_; }

    // The next event, or false if there is none now.
    bool next(Event& event);

    // `data` is for a request that reads, at most as long as the request says.
    void answer(const Event& event, int64_t result, const Packet& data = {});

    Delivery deliver(uint64_t open, const Packet& packet);
    void flush(uint64_t open);
    void hang_up(uint64_t open, bool raised);

    // The memory of an event's caller. False where the address is bad or the caller gone.
    bool copy_from(const Event& event, uint64_t address, void* out, size_t size);
    bool copy_to(const Event& event, uint64_t address, const void* data, size_t size);

    [[noreturn]] void panic(const std::string& reason);

  private:
    int order(unsigned long request, const void* argument);
    bool copy(relay_copy order, size_t size);

    int fd_;
};

// A caller's memory while its request is served. What the request itself encodes was brought along
// and goes back with the answer; everything else is fetched and stored at once.
class RelayMemory : public Memory {
  public:
    RelayMemory(RelayControl& control, const RelayControl::Event& event);

    bool read(uint64_t address, void* out, size_t size) override;
    bool write(uint64_t address, const void* data, size_t size) override;

    // What goes back with the answer.
    const Packet& answer() const { return answer_; }

  private:
    RelayControl& control_;
    const RelayControl::Event& event_;
    const size_t room_;  // bytes that the request takes back
    Packet answer_;
};

}  // namespace rvd::lab

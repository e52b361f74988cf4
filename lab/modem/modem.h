// Where the models end and the stage begins. The models are the modem's driver and its boot loader;
// the stage is whatever carries the daemon's system calls to them and their answers back. The
// models know nothing of how that is done, the stage nothing of what is said.
#pragma once

#include <functional>

#include "lab/base.h"

namespace rvd::lab {

enum class Node { boot, dump };

inline const char* node_name(Node node) {
    return node == Node::boot ? "boot" : "dump";
}

// The caller's memory, as a driver reaches it. Both return false where the address is bad.
class Memory {
  public:
    virtual ~Memory() = default;
    virtual bool read(uint64_t address, void* out, size_t size) = 0;
    virtual bool write(uint64_t address, const void* data, size_t size) = 0;
};

// What the models may ask of the stage.
class Stage {
  public:
    virtual ~Stage() = default;
    virtual Time now() const = 0;
    virtual void later(Time delay, std::function<void()> what) = 0;

    // Raises a hang-up on every open descriptor of the node.
    virtual void hang_up(Node node) = 0;

    // The descriptor that is being served works again.
    virtual void end_hang_up() = 0;

    // Forgets what was sent to the node and not read.
    virtual void flush(Node node) = 0;

    // The model has something to send after all: ask it again.
    virtual void pump(Node node) = 0;

    // The kernel panics and the device is gone.
    virtual void panic() = 0;
};

// What the stage asks of the models.
class Modem {
  public:
    virtual ~Modem() = default;

    // One driver request; the result as the driver returns it, a negated errno on failure.
    virtual int64_t request(Node node, unsigned long number, uint64_t argument, Memory& memory) = 0;

    // A request that failed before it came to the driver.
    virtual void lost(unsigned long number) = 0;

    // One packet that was written to the node.
    virtual void received(Node node, const Packet& packet) = 0;

    // The next packet for the node's reader, or false if there is none now.
    virtual bool next(Node node, Packet& packet) = 0;
};

}  // namespace rvd::lab

// The interface between the models and a backend. The models are the modem's driver and its boot
// loader; a backend, the gate or the character devices, passes the daemon's requests and packets to
// them and their answers back.
#pragma once

#include <string.h>
#include <sys/uio.h>

#include <functional>
#include <memory>

#include "lab/base.h"
#include "lab/modem/firmware.h"
#include "lab/run/story.h"

namespace rvd::lab {

enum class Node { boot, dump };

inline const char* node_name(Node node) {
    return node == Node::boot ? "boot" : "dump";
}

// The memory of another process. Reading and writing return false if the address is bad.
class Memory {
  public:
    explicit Memory(pid_t pid) : pid_(pid) {}

    bool read(uint64_t address, void* out, size_t size) const {
        return copy(process_vm_readv, address, out, size);
    }
    bool write(uint64_t address, const void* data, size_t size) const {
        return copy(process_vm_writev, address, const_cast<void*>(data), size);
    }

    // Reads several ranges into one buffer, up to `size` bytes.
    bool gather(const std::vector<iovec>& ranges, void* out, size_t size) const {
        const iovec local = {out, size};
        return process_vm_readv(pid_, &local, 1, ranges.data(), ranges.size(), 0) ==
               static_cast<ssize_t>(size);
    }

    // A string of at most PATH_MAX bytes. The page behind its first one may be unmapped.
    std::string text(uint64_t address) const {
        constexpr size_t kPage = 4096;
        const size_t first = kPage - address % kPage;
        char bytes[2 * kPage];
        const iovec local = {bytes, sizeof(bytes)};
        const iovec remote[] = {{reinterpret_cast<void*>(address), first},
                                {reinterpret_cast<void*>(address + first), kPage}};
        const ssize_t n = process_vm_readv(pid_, &local, 1, remote, 2, 0);
        return {bytes, n > 0 ? strnlen(bytes, static_cast<size_t>(n)) : 0};
    }

  private:
    template <class Copy>
    bool copy(Copy call, uint64_t address, void* bytes, size_t size) const {
        const iovec local = {bytes, size}, remote = {reinterpret_cast<void*>(address), size};
        return size == 0 || call(pid_, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
    }

    pid_t pid_;
};

// What the models ask of the backend.
class Backend {
  public:
    virtual ~Backend() = default;
    virtual Time now() const = 0;
    virtual void later(Time delay, std::function<void()> what) = 0;
    virtual void hang_up(Node node) = 0;         // on every open descriptor of the node
    virtual void clear_hang_up() = 0;            // on the descriptor of the current request
    virtual void discard_unread(Node node) = 0;  // drops what the daemon has not read yet
    virtual void send_packets(Node node) = 0;    // fetches the node's next packets and sends them
    virtual void panic() = 0;                    // the kernel panics; no call returns after it
};

// What a model works with.
struct ModelContext {
    const Scenario& scenario;
    const Partition& partition;
    Backend& backend;
    Story& story;
};

// What the backend asks of the models.
class Modem {
  public:
    virtual ~Modem() = default;

    // Handles a request and returns its result or a negated errno.
    virtual int64_t request(Node node, unsigned long number, uint64_t argument,
                            const Memory& memory) = 0;

    // An injected fault made a request fail before it reached the driver.
    virtual void request_failed(unsigned long number) = 0;

    // Takes a packet written to a node. Gives the next packet for its reader; false if there is
    // none.
    virtual void receive(Node node, const Packet& packet) = 0;
    virtual bool next_packet(Node node, Packet& packet) = 0;

    // Changes the modem's state: the boot node hangs up until the daemon reads the state.
    virtual void change_state(int state) = 0;
    virtual int state() const = 0;

    virtual void daemon_ended() = 0;  // requests and images in progress are dropped
    virtual void reboot() = 0;        // of the device
};

std::unique_ptr<Modem> make_modem(const ModelContext& context);

std::vector<std::string> request_names();

}  // namespace rvd::lab

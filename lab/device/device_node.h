// One of the driver's nodes as a character device in user space (CUSE). Each open, read, write,
// request and wait of a caller is a message; the caller waits until it is answered.
#pragma once

#include <list>
#include <optional>
#include <string>

#include "lab/modem/modem.h"

struct fuse_pollhandle;
struct fuse_req;
struct fuse_session;

namespace rvd::lab {

class DeviceNode {
  public:
    // Makes the device; `modem` is set by the time it is opened. Throws Unable.
    DeviceNode(Node node, const std::string& path, Modem* const& modem);

    int fd() const;  // readable while there are messages

    // Serves one message; but only answer() passes on the result of a request.
    void serve();
    void answer();

    void hang_up();
    void end_hang_up();  // of the descriptor with the request in hand
    void flush();
    void pump();
    void abandon();  // answers all callers, which have been killed

    size_t opens() const { return opens_.size(); }
    bool hung() const { return any(&Open::hung); }
    bool awaits_hang_up() const { return any(&Open::awaits_hang_up); }

  private:
    struct Open {
        bool hung = false;
        bool awaits_hang_up = false;        // and nothing else
        std::optional<Packet> packet = {};  // the modem's next, not read yet
        fuse_req* reader = nullptr;         // waits for it, with so much room
        size_t room = 0;
        fuse_pollhandle* poller = nullptr;
    };
    struct Operations;

    bool any(bool Open::*what) const;
    bool fill(Open& open);
    void wake(Open& open);

    const Node node_;
    Modem* const& modem_;
    fuse_session* session_;
    std::list<Open> opens_;
    Open* requesting_ = nullptr;
    fuse_req* request_ = nullptr;  // not answered yet
    int64_t result_ = 0;
};

}  // namespace rvd::lab

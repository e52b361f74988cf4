// The daemon's descriptors that lead to the lab. Each open of a node, and of the kernel log, is a
// socket pair of its own: reading, writing and waiting are the kernel's.
#pragma once

#include <poll.h>

#include <list>
#include <optional>
#include <string>
#include <vector>

#include "lab/gate/clock.h"
#include "lab/gate/daemon.h"
#include "lab/run/story.h"
#include "util/ScopedFd.h"

namespace rvd::lab {

class Links {
  public:
    struct Link {
        std::optional<Node> node;  // or the kernel log
        int daemon_fd;
        ScopedFd fd = ScopedFd();  // this end; the other is the daemon's
        ino_t inode = 0;           // of the daemon's end
        bool closed = false;       // by the daemon
        bool pending = false;
        Packet out = {};              // that did not fit, while `pending`
        std::vector<Packet> in = {};  // received and not delivered yet

        bool hung() const { return !fd.valid(); }
        int unread() const;  // bytes
    };

    Links(Daemon& daemon, Clock& clock, Story& story, Modem& modem)
        : daemon_(daemon), clock_(clock), story_(story), modem_(modem) {}

    // Answers the open of a node, or of the kernel log. The number of its open descriptors.
    size_t open(const Call& call, std::optional<Node> node);
    void close_all() { links_.clear(); }

    // The open node there, or null; and what is open there: "/dev/boot", "/dev/dump", "/dev/kmsg"
    // or nothing.
    const Link* at(int daemon_fd) const;
    std::string name_of(int daemon_fd) const;

    // Queues what the daemon has logged and sent, so that a thread that runs finds room.
    void receive();

    // Delivers the lines that the daemon has logged, then the packets that it has sent.
    void take();

    void hang_up(Node node);
    void end_hang_up(const Call& served);
    void flush(Node node, const Call& served);
    void pump(Node node);
    void pump_all();

    // The descriptors to poll with the real clock.
    void add_to(std::vector<pollfd>& set) const;

  private:
    void renew(Link& link, const Call& served);
    void deliver(const Link& link, const Packet& packet);

    Daemon& daemon_;
    Clock& clock_;
    Story& story_;
    Modem& modem_;
    std::list<Link> links_;  // in the order of their opening
};

}  // namespace rvd::lab

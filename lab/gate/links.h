// The daemon's descriptors of the driver's nodes and of /dev/kmsg. Each open() gets a socket pair
// of its own, so that the kernel itself carries out the daemon's reads and writes.
#pragma once

#include <poll.h>

#include <list>
#include <optional>
#include <string>
#include <vector>

#include "lab/gate/daemon.h"
#include "lab/gate/scheduler.h"
#include "lab/run/story.h"
#include "util/ScopedFd.h"

namespace rvd::lab {

class Links {
  public:
    struct Link {
        std::optional<Node> node;  // none: /dev/kmsg
        int daemon_fd;
        ScopedFd fd = ScopedFd();  // the lab's end; closed by a hang-up
        ino_t inode = 0;           // of the daemon's end
        bool closed = false;       // by the daemon
        bool send_blocked = false;
        Packet unsent = {};                 // that did not fit, while `send_blocked`
        std::vector<Packet> received = {};  // received and not delivered yet

        bool hung_up() const { return !fd.valid(); }
        int unread() const;  // bytes
    };

    Links(Daemon& daemon, Scheduler& scheduler, Story& story, Modem& modem)
        : daemon_(daemon), scheduler_(scheduler), story_(story), modem_(modem) {}

    // Answers the open() of a node, or of /dev/kmsg. Returns how many descriptors of it are open.
    size_t open(const Call& call, std::optional<Node> node);
    void close_all() { links_.clear(); }

    // The node's link with this descriptor, or null. The path of any link: "/dev/boot",
    // "/dev/dump", "/dev/kmsg", or "" for another file.
    const Link* find(int daemon_fd) const;
    std::string name_of(int daemon_fd) const;

    // Moves what the daemon has logged and sent from the sockets to queues, so that a running
    // thread is never blocked by a full socket.
    void read_sockets();

    // Delivers first the lines that the daemon has logged, then the packets that it has sent.
    void dispatch();

    void hang_up(Node node);
    void clear_hang_up(const Call& request);
    void discard_unread(Node node, const Call& request);
    void send_packets(Node node);
    void send_all_packets();

    // The descriptors to poll with the real clock.
    void add_pollfds(std::vector<pollfd>& set) const;

  private:
    void reconnect(Link& link, const Call& request);
    void deliver(const Link& link, const Packet& packet);

    Daemon& daemon_;
    Scheduler& scheduler_;
    Story& story_;
    Modem& modem_;
    std::list<Link> links_;  // oldest first
};

}  // namespace rvd::lab

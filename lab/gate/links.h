// The daemon's descriptors that lead to the lab. Each open of a node, and of the kernel log, is a
// socket pair of its own: reading, writing and waiting are the kernel's.
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
        std::optional<Node> node;  // or the kernel log
        int daemon_fd;
        ScopedFd fd = ScopedFd();  // this end; the other is the daemon's
        ino_t inode = 0;           // of the daemon's end
        bool closed = false;       // by the daemon
        bool send_blocked = false;
        Packet unsent = {};                 // that did not fit, while `pending`
        std::vector<Packet> received = {};  // received and not delivered yet

        bool hung_up() const { return !fd.valid(); }
        int unread() const;  // bytes
    };

    Links(Daemon& daemon, Scheduler& scheduler, Story& story, Modem& modem)
        : daemon_(daemon), scheduler_(scheduler), story_(story), modem_(modem) {}

    // Answers the open of a node, or of the kernel log. The number of its open descriptors.
    size_t open(const Call& call, std::optional<Node> node);
    void close_all() { links_.clear(); }

    // The open node there, or null; and what is open there: "/dev/boot", "/dev/dump", "/dev/kmsg"
    // or nothing.
    const Link* find(int daemon_fd) const;
    std::string name_of(int daemon_fd) const;

    // Queues what the daemon has logged and sent, so that a thread that runs finds room.
    void read_sockets();

    // Delivers the lines that the daemon has logged, then the packets that it has sent.
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
    std::list<Link> links_;  // in the order of their opening
};

}  // namespace rvd::lab

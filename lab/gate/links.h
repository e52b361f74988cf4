// The daemon's descriptors that lead to the lab. Each open of a node, and of the kernel log, is a
// socket pair of its own: reading, writing and waiting are the kernel's.
#pragma once

#include <poll.h>

#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "lab/gate/clock.h"
#include "lab/gate/daemon.h"
#include "lab/run/story.h"

namespace rvd::lab {

class Links {
  public:
    struct Link {
        std::optional<Node> node;  // or the kernel log
        int daemon_fd;
        int fd = -1;      // this end; the other is the daemon's
        ino_t inode = 0;  // of the daemon's end
        bool hung = false, pending = false, closed = false;
        Packet out = {};   // that did not fit, while `pending`
        Packet held = {};  // the newest from the daemon, held back
    };

    // `widen` is called between reads of the log and of a node.
    Links(Daemon& daemon, Clock& clock, Story& story, std::function<void()> widen)
        : daemon_(daemon), clock_(clock), story_(story), widen_(std::move(widen)) {}

    void connect(Modem& modem) { modem_ = &modem; }
    void close_all();

    // Answers the open of a node, or of the kernel log. The number of its open descriptors.
    size_t open(const Call& call, std::optional<Node> node);

    // The open node there, or null; and what is open there: "/dev/boot", "/dev/dump", "/dev/kmsg"
    // or nothing.
    const Link* at(int daemon_fd) const;
    std::string name_of(int daemon_fd) const;

    int unread(const Link& link) const;

    // Reads the daemon's log, then its packets. While a thread runs, a line may follow that was
    // logged before the newest packet was sent, so that packet is held back.
    enum class Says { all, more };
    void take(Says says);

    void hang_up(Node node);
    void end_hang_up(const Call& served);
    void flush(Node node, const Call& served);
    void pump(Node node);
    void pump_all();

    // The descriptors to poll with the real clock.
    void add_to(std::vector<pollfd>& set) const;

  private:
    void renew(Link& link, const Call& served);
    void take_log();
    void take_packets(Link& link, Says says);

    Daemon& daemon_;
    Clock& clock_;
    Story& story_;
    Modem* modem_ = nullptr;
    std::function<void()> widen_;
    std::list<Link> links_;
};

}  // namespace rvd::lab

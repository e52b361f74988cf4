// The daemon's descriptors that lead to the lab. Each open of a node, and of the kernel log, is a
// socket pair of its own: reading, writing and waiting are the kernel's.
#pragma once

#include <poll.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "lab/gate/clock.h"
#include "lab/gate/daemon.h"
#include "lab/run/story.h"

namespace rvd::lab {

class Links {
  public:
    // One open node.
    struct Link {
        Node node;
        int fd;  // this end; the other is the daemon's
        int daemon_fd;
        ino_t inode;  // of the daemon's end
        bool hung = false, pending = false;
        Packet out = {};   // that did not fit, while `pending`
        Packet held = {};  // the newest from the daemon, while it runs
    };

    // `widen` is called between reads of the log and of a node.
    Links(Daemon& daemon, Clock& clock, Story& story, std::function<void()> widen)
        : daemon_(daemon), clock_(clock), story_(story), widen_(std::move(widen)) {}
    ~Links() { close_all(); }
    Links(const Links&) = delete;
    Links& operator=(const Links&) = delete;

    void connect(Modem& modem) { modem_ = &modem; }
    void close_all();

    // Each answers the call. The number of open descriptors of the node.
    size_t open_node(const Call& call, Node node);
    void open_kernel_log(const Call& call);

    const Link* at(int daemon_fd) const;
    int unread(const Link& link) const;

    // What the daemon has open there: "/dev/boot", "/dev/dump", "/dev/kmsg" or nothing.
    std::string name_of(int daemon_fd) const;

    // Takes what the daemon has said: its log before its packets. While it runs, more may be logged
    // before the newest packet is followed by another call, so that one is kept for later.
    enum class Says { all, more };
    void take(Says says);

    void hang_up(Node node);
    void end_hang_up(const Call& served);
    void flush(Node node, const Call& served);
    void pump(Node node);
    void pump_all();

    // What to wait for where nothing stops the daemon at its calls.
    void add_to(std::vector<pollfd>& set) const;

  private:
    void take_log();
    void take_packets(size_t index, Says says);
    void deliver(size_t index, const Packet& packet);
    void pump(Link& link);
    void renew(Link& link, const Call& served);

    struct KernelLog {
        int fd, daemon_fd;
    };

    Daemon& daemon_;
    Clock& clock_;
    Story& story_;
    Modem* modem_ = nullptr;
    std::function<void()> widen_;
    std::vector<Link> links_;
    std::vector<KernelLog> logs_;
};

}  // namespace rvd::lab

#include "lab/gate/links.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace rvd::lab {

namespace {

constexpr int kBuffer = 4 << 20;
constexpr size_t kLongestPacket = 8192;
constexpr size_t kLongestRecord = 976;  // of the kernel log; longer ones are refused whole

// The inode of a socket by its path in /proc; 0 where there is none.
ino_t inode_of(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

std::string name_of_node(const std::optional<Node>& node) {
    return std::string("/dev/") + (node ? node_name(*node) : "kmsg");
}

// Makes the pair of a link and returns the daemon's end. The lab's end never blocks.
int make_pair(Links::Link& link) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) fail_errno("socketpair");
    for (const int end : ends) {
        if (setsockopt(end, SOL_SOCKET, SO_SNDBUFFORCE, &kBuffer, sizeof(kBuffer)) != 0)
            setsockopt(end, SOL_SOCKET, SO_SNDBUF, &kBuffer, sizeof(kBuffer));
    }
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    link.fd = ends[0];
    link.inode = inode_of(fmt::format("/proc/self/fd/{}", ends[1]));
    return ends[1];
}

void shut(Links::Link& link) {
    close(link.fd);
    link.fd = -1;
    link.hung = link.closed = true;
    link.pending = false;
}

}  // namespace

void Links::close_all() {
    for (const Link& link : links_)
        close(link.fd);
    links_.clear();
}

size_t Links::open(const Call& call, std::optional<Node> node) {
    Link link = {node, -1};
    const int end = make_pair(link);
    link.daemon_fd = daemon_.give(call, end);
    close(end);
    links_.remove_if([&](const Link& old) { return old.node && old.daemon_fd == link.daemon_fd; });
    links_.push_back(link);
    return static_cast<size_t>(std::count_if(
            links_.begin(), links_.end(), [&](const Link& other) { return other.node == node; }));
}

// Puts a fresh pair in the place of the daemon's descriptor.
void Links::renew(Link& link, const Call& served) {
    close(link.fd);
    link = {link.node, link.daemon_fd};
    const int end = make_pair(link);
    daemon_.replace(served, link.daemon_fd, end);
    close(end);
}

const Links::Link* Links::at(int daemon_fd) const {
    const auto found = std::find_if(links_.begin(), links_.end(), [&](const Link& link) {
        return link.node && link.daemon_fd == daemon_fd;
    });
    return found == links_.end() ? nullptr : &*found;
}

std::string Links::name_of(int daemon_fd) const {
    const auto found = std::find_if(links_.rbegin(), links_.rend(),
                                    [&](const Link& link) { return link.daemon_fd == daemon_fd; });
    return found == links_.rend() ? "" : name_of_node(found->node);
}

int Links::unread(const Link& link) const {
    int bytes = 0;
    ioctl(link.fd, SIOCOUTQ, &bytes);
    return bytes;
}

void Links::take(Says says) {
    take_log();
    for (Link& link : links_) {
        if (link.node) take_packets(link, says);
    }
    links_.remove_if([](const Link& link) { return link.closed; });
}

void Links::take_log() {
    char record[8192];
    for (Link& link : links_) {
        while (!link.node && !link.closed) {
            const ssize_t n = recv(link.fd, record, sizeof(record), 0);
            if (n < 0) break;
            if (n == 0) {
                shut(link);
                break;
            }
            clock_.note_activity();
            const std::string text(record, static_cast<size_t>(n));
            if (text.size() > kLongestRecord)
                story_.violation(fmt::format("a kernel log record of {} bytes: refused", n));
            const bool level = text.size() > 2 && text[0] == '<' && text[2] == '>';
            if (!level) story_.violation("a kernel log record without a level: " + text);
            story_.log_line(level ? text[1] - '0' : 0, level ? text.substr(3) : text);
        }
    }
}

void Links::take_packets(Link& link, Says says) {
    uint8_t packet[kLongestPacket];
    while (!link.hung) {
        widen_();
        const ssize_t n = recv(link.fd, packet, sizeof(packet), 0);
        if (n < 0 && says == Says::more) return;
        if (!link.held.empty()) {
            // Lines logged before this packet was sent may have arrived since.
            take_log();
            clock_.note_activity();
            modem_->received(*link.node, std::exchange(link.held, {}));
        }
        if (n < 0) return;
        if (n == 0) return shut(link);
        link.held.assign(packet, packet + n);
    }
    link.closed = inode_of(daemon_.link_of(link.daemon_fd)) != link.inode;
}

void Links::hang_up(Node node) {
    for (Link& link : links_) {
        if (link.node != node || link.hung) continue;
        shut(link);
        link.closed = false;  // the daemon still has it
    }
}

void Links::end_hang_up(const Call& served) {
    for (Link& link : links_) {
        if (link.daemon_fd == static_cast<int>(served.argument(0)) && link.hung)
            renew(link, served);
    }
}

void Links::flush(Node node, const Call& served) {
    for (Link& link : links_) {
        if (link.node == node && !link.hung && (unread(link) > 0 || link.pending))
            renew(link, served);
    }
}

// To the newest descriptor of the node, as much as fits.
void Links::pump(Node node) {
    const auto newest = std::find_if(links_.rbegin(), links_.rend(), [&](const Link& link) {
        return link.node == node && !link.closed;
    });
    while (newest != links_.rend() && !newest->hung) {
        Link& link = *newest;
        if (!link.pending && !modem_->next(node, link.out)) return;
        clock_.note_activity();
        link.pending = send(link.fd, link.out.data(), link.out.size(), MSG_NOSIGNAL) < 0 &&
                       errno == EAGAIN;
        if (link.pending) return;
    }
}

void Links::pump_all() {
    pump(Node::boot);
    pump(Node::dump);
}

void Links::add_to(std::vector<pollfd>& set) const {
    for (const Link& link : links_) {
        if (!link.hung)
            set.push_back({link.fd, static_cast<short>(POLLIN | (link.pending ? POLLOUT : 0)), 0});
    }
}

}  // namespace rvd::lab

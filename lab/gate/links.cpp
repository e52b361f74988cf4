#include "lab/gate/links.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>

namespace rvd::lab {

namespace {

constexpr int kBuffer = 4 << 20;
constexpr size_t kLongestPacket = 8192;
constexpr size_t kLongestRecord = 976;  // the kernel rejects longer ones with EINVAL

// Gives a link a new socket pair and returns the daemon's end. The lab's end is non-blocking.
ScopedFd connect(Links::Link& link) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) throw_errno("socketpair");
    for (const int end : ends) {
        if (setsockopt(end, SOL_SOCKET, SO_SNDBUFFORCE, &kBuffer, sizeof(kBuffer)) != 0)
            setsockopt(end, SOL_SOCKET, SO_SNDBUF, &kBuffer, sizeof(kBuffer));
    }
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    struct stat status {};
    fstat(ends[1], &status);
    link.fd.reset(ends[0]);
    link.inode = status.st_ino;
    link.send_blocked = false;
    return ScopedFd(ends[1]);
}

// Whether the daemon has closed its end. Where the lab has closed its own, no end of file shows it.
bool is_closed(const Links::Link& link, const Daemon& daemon) {
    if (!link.hung_up()) return link.closed;
    struct stat status {};
    return stat(daemon.fd_path(link.daemon_fd).c_str(), &status) != 0 ||
           status.st_ino != link.inode;
}

}  // namespace

int Links::Link::unread() const {
    int bytes = 0;
    ioctl(fd.get(), SIOCOUTQ, &bytes);
    return bytes;
}

size_t Links::open(const Call& call, std::optional<Node> node) {
    Link link = {node, -1};
    const ScopedFd end = connect(link);
    link.daemon_fd = daemon_.install_fd(call, end.get());
    links_.remove_if([&](const Link& old) { return old.daemon_fd == link.daemon_fd; });
    links_.push_back(std::move(link));
    return static_cast<size_t>(std::count_if(
            links_.begin(), links_.end(), [&](const Link& other) { return other.node == node; }));
}

void Links::reconnect(Link& link, const Call& request) {
    const ScopedFd end = connect(link);
    daemon_.replace_fd(request, link.daemon_fd, end.get());
}

const Links::Link* Links::find(int daemon_fd) const {
    for (const Link& link : links_) {
        if (link.node && link.daemon_fd == daemon_fd) return &link;
    }
    return nullptr;
}

std::string Links::name_of(int daemon_fd) const {
    for (const Link& link : links_) {
        if (link.daemon_fd == daemon_fd)
            return std::string("/dev/") + (link.node ? node_name(*link.node) : "kmsg");
    }
    return "";
}

// The oldest link, the log, is read last: every line logged before a packet was sent is then there.
void Links::read_sockets() {
    uint8_t packet[kLongestPacket];
    for (auto link = links_.rbegin(); link != links_.rend(); ++link) {
        while (!link->hung_up() && !link->closed) {
            const ssize_t n = recv(link->fd.get(), packet, sizeof(packet), 0);
            if (n < 0) break;
            link->closed = n == 0;
            if (n > 0) link->received.emplace_back(packet, packet + n);
        }
    }
}

void Links::dispatch() {
    read_sockets();
    for (Link& link : links_) {
        for (const Packet& packet : std::exchange(link.received, {})) {
            if (!link.hung_up()) deliver(link, packet);
        }
    }
    links_.remove_if([&](const Link& link) { return is_closed(link, daemon_); });
}

void Links::deliver(const Link& link, const Packet& packet) {
    scheduler_.note_activity();
    if (link.node) return modem_.receive(*link.node, packet);
    const std::string text(packet.begin(), packet.end());
    if (text.size() > kLongestRecord)
        story_.violation("a kernel log record of {} bytes, which the kernel would reject",
                         text.size());
    const bool level = text.size() > 2 && text[0] == '<' && text[2] == '>';
    if (!level) story_.violation("a kernel log record without a level: " + text);
    story_.log_line(level ? text[1] - '0' : 0, level ? text.substr(3) : text);
}

void Links::hang_up(Node node) {
    for (Link& link : links_) {
        if (link.node == node) link.fd.reset();
    }
}

void Links::clear_hang_up(const Call& request) {
    for (Link& link : links_) {
        if (link.daemon_fd == static_cast<int>(request.argument(0)) && link.hung_up())
            reconnect(link, request);
    }
}

void Links::discard_unread(Node node, const Call& request) {
    for (Link& link : links_) {
        if (link.node == node && !link.hung_up() && (link.unread() > 0 || link.send_blocked))
            reconnect(link, request);
    }
}

// Sends to the newest descriptor of the node until its socket is full.
void Links::send_packets(Node node) {
    const auto newest = std::find_if(links_.rbegin(), links_.rend(), [&](const Link& link) {
        return link.node == node && !link.closed;
    });
    while (newest != links_.rend() && !newest->hung_up()) {
        Link& link = *newest;
        if (!link.send_blocked && !modem_.next_packet(node, link.unsent)) return;
        scheduler_.note_activity();
        link.send_blocked =
                send(link.fd.get(), link.unsent.data(), link.unsent.size(), MSG_NOSIGNAL) < 0 &&
                errno == EAGAIN;
        if (link.send_blocked) return;
    }
}

void Links::send_all_packets() {
    send_packets(Node::boot);
    send_packets(Node::dump);
}

void Links::add_pollfds(std::vector<pollfd>& set) const {
    for (const Link& link : links_) {
        const int events = POLLIN | (link.send_blocked ? POLLOUT : 0);
        set.push_back({link.fd.get(), static_cast<short>(events), 0});
    }
}

}  // namespace rvd::lab

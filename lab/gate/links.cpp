#include "lab/gate/links.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/sockios.h>
#include <poll.h>
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

// Both ends: the lab's first, which never blocks.
std::pair<int, int> open_pair() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) fail_errno("socketpair");
    for (const int end : ends) {
        if (setsockopt(end, SOL_SOCKET, SO_SNDBUFFORCE, &kBuffer, sizeof(kBuffer)) != 0)
            setsockopt(end, SOL_SOCKET, SO_SNDBUF, &kBuffer, sizeof(kBuffer));
    }
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    return {ends[0], ends[1]};
}

// The number of a socket, by a path that leads to it; 0 where there is none.
ino_t inode_of(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

ino_t inode_of_own(int fd) {
    return inode_of(fmt::format("/proc/self/fd/{}", fd));
}

}  // namespace

void Links::close_all() {
    for (const Link& link : links_)
        close(link.fd);
    for (const KernelLog& log : logs_)
        close(log.fd);
    links_.clear();
    logs_.clear();
}

size_t Links::open_node(const Call& call, Node node) {
    const auto [fd, end] = open_pair();
    const int daemon_fd = daemon_.give(call, end);
    const auto same = [&](const Link& link) { return link.daemon_fd == daemon_fd; };
    links_.erase(std::remove_if(links_.begin(), links_.end(), same), links_.end());
    links_.push_back({node, fd, daemon_fd, inode_of_own(end)});
    close(end);
    return static_cast<size_t>(std::count_if(links_.begin(), links_.end(),
                                             [&](const Link& link) { return link.node == node; }));
}

void Links::open_kernel_log(const Call& call) {
    const auto [fd, end] = open_pair();
    logs_.push_back({fd, daemon_.give(call, end)});
    close(end);
}

const Links::Link* Links::at(int daemon_fd) const {
    for (const Link& link : links_) {
        if (link.daemon_fd == daemon_fd) return &link;
    }
    return nullptr;
}

int Links::unread(const Link& link) const {
    int bytes = 0;
    ioctl(link.fd, SIOCOUTQ, &bytes);
    return bytes;
}

std::string Links::name_of(int daemon_fd) const {
    if (const Link* link = at(daemon_fd)) return std::string("/dev/") + node_name(link->node);
    const bool log = std::any_of(logs_.begin(), logs_.end(),
                                 [&](const KernelLog& l) { return l.daemon_fd == daemon_fd; });
    return log ? "/dev/kmsg" : "";
}

void Links::take(Says says) {
    take_log();
    for (size_t i = 0; i < links_.size();) {
        const size_t before = links_.size();
        take_packets(i, says);
        if (links_.size() == before) i++;
    }
}

void Links::take_log() {
    char record[8192];
    for (size_t i = 0; i < logs_.size();) {
        const ssize_t n = recv(logs_[i].fd, record, sizeof(record), 0);
        if (n < 0) {
            i++;
            continue;
        }
        if (n == 0) {
            close(logs_[i].fd);
            logs_.erase(logs_.begin() + static_cast<ptrdiff_t>(i));
            continue;
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

void Links::take_packets(size_t index, Says says) {
    const auto erase = [&] { links_.erase(links_.begin() + static_cast<ptrdiff_t>(index)); };
    uint8_t packet[kLongestPacket];
    while (!links_[index].hung) {
        widen_();
        const ssize_t n = recv(links_[index].fd, packet, sizeof(packet), 0);
        if (n < 0 && says == Says::more) return;
        if (!links_[index].held.empty()) {
            // What was logged before this packet was sent may have come in since.
            take_log();
            deliver(index, std::exchange(links_[index].held, {}));
        }
        if (n < 0) return;
        if (n == 0) {
            close(links_[index].fd);
            return erase();
        }
        links_[index].held.assign(packet, packet + n);
    }
    const Link& link = links_[index];
    if (inode_of(daemon_.link_of(link.daemon_fd)) != link.inode) erase();
}

void Links::deliver(size_t index, const Packet& packet) {
    clock_.note_activity();
    modem_->received(links_[index].node, packet);
}

void Links::hang_up(Node node) {
    for (Link& link : links_) {
        if (link.node != node || link.hung) continue;
        close(link.fd);
        link.fd = -1;
        link.hung = true;
        link.pending = false;
    }
}

// Puts a fresh pair in the place of the daemon's descriptor.
void Links::renew(Link& link, const Call& served) {
    close(link.fd);
    const auto [fd, end] = open_pair();
    link = {link.node, fd, link.daemon_fd, inode_of_own(end)};
    daemon_.replace(served, link.daemon_fd, end);
    close(end);
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

void Links::pump(Node node) {
    const auto newest = std::find_if(links_.rbegin(), links_.rend(),
                                     [&](const Link& link) { return link.node == node; });
    if (newest != links_.rend()) pump(*newest);
}

void Links::pump_all() {
    pump(Node::boot);
    pump(Node::dump);
}

void Links::pump(Link& link) {
    while (!link.hung) {
        if (!link.pending && !modem_->next(link.node, link.out)) return;
        clock_.note_activity();
        link.pending = send(link.fd, link.out.data(), link.out.size(), MSG_NOSIGNAL) < 0 &&
                       errno == EAGAIN;
        if (link.pending) return;
    }
}

void Links::add_to(std::vector<pollfd>& set) const {
    for (const KernelLog& log : logs_)
        set.push_back({log.fd, POLLIN, 0});
    for (const Link& link : links_) {
        if (!link.hung)
            set.push_back({link.fd, static_cast<short>(POLLIN | (link.pending ? POLLOUT : 0)), 0});
    }
}

}  // namespace rvd::lab

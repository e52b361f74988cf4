// The gate's descriptors: each open of a node, and of the kernel log, is a socket pair of its own.

#include <errno.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "lab/gate/gate.h"

namespace rvd::lab {

namespace {

constexpr int kBuffer = 4 << 20;
constexpr size_t kLongestPacket = 8192;
constexpr size_t kLongestRecord = 976;  // of the kernel log; longer ones are refused whole

ino_t inode(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

}  // namespace

int Gate::open_pair(int& daemon_end) const {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) fail_errno("socketpair");
    for (const int end : ends) {
        if (setsockopt(end, SOL_SOCKET, SO_SNDBUFFORCE, &kBuffer, sizeof(kBuffer)) != 0)
            setsockopt(end, SOL_SOCKET, SO_SNDBUF, &kBuffer, sizeof(kBuffer));
    }
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    daemon_end = ends[1];
    return ends[0];
}

// Adds a descriptor to the daemon as the result of its open.
int Gate::give(const Call& call, int daemon_end) {
    const uint64_t flags = call.argument(call.shape->path + 1);
    fcntl(daemon_end, F_SETFL, flags & O_NONBLOCK);
    seccomp_notif_addfd add{};
    add.id = call.raw.id;
    add.flags = SECCOMP_ADDFD_FLAG_SEND;
    add.srcfd = static_cast<uint32_t>(daemon_end);
    add.newfd_flags = flags & O_CLOEXEC;
    const int number = ioctl(process_.listener, SECCOMP_IOCTL_NOTIF_ADDFD, &add);
    if (number < 0) fail_errno("cannot hand the daemon a descriptor");
    return number;
}

void Gate::open_node(const Call& call, Node node) {
    int daemon_end = -1;
    Link link{node, open_pair(daemon_end), -1, inode(format("/proc/self/fd/%d", daemon_end))};
    link.daemon_fd = give(call, daemon_end);
    close(daemon_end);
    const auto stale = std::remove_if(links_.begin(), links_.end(), [&](const Link& old) {
        return old.daemon_fd == link.daemon_fd;
    });
    links_.erase(stale, links_.end());
    links_.push_back(std::move(link));
    const auto open = std::count_if(links_.begin(), links_.end(),
                                    [&](const Link& other) { return other.node == node; });
    check_opens(node, static_cast<size_t>(open));
}

void Gate::open_kernel_log(const Call& call) {
    int daemon_end = -1;
    const int fd = open_pair(daemon_end);
    kernel_logs_.push_back({fd, give(call, daemon_end)});
    close(daemon_end);
}

Gate::Link* Gate::link_at(int daemon_fd) {
    for (Link& link : links_) {
        if (link.daemon_fd == daemon_fd) return &link;
    }
    return nullptr;
}

// Puts a fresh pair in the place of the daemon's descriptor, while one of its calls is served.
void Gate::renew(Link& link) {
    close(link.fd);
    int daemon_end = -1;
    link.fd = open_pair(daemon_end);
    link.inode = inode(format("/proc/self/fd/%d", daemon_end));
    link.hung = link.pending = false;
    seccomp_notif_addfd add{};
    add.id = served_->raw.id;
    add.flags = SECCOMP_ADDFD_FLAG_SETFD;
    add.srcfd = static_cast<uint32_t>(daemon_end);
    add.newfd = static_cast<uint32_t>(link.daemon_fd);
    add.newfd_flags = O_CLOEXEC;
    if (ioctl(process_.listener, SECCOMP_IOCTL_NOTIF_ADDFD, &add) < 0)
        fail_errno("cannot renew a node's descriptor");
    close(daemon_end);
}

void Gate::hang_up(Node node) {
    for (Link& link : links_) {
        if (link.node != node || link.hung) continue;
        close(link.fd);
        link.fd = -1;
        link.hung = true;
        link.pending = false;
    }
}

void Gate::end_hang_up() {
    Link* link = link_at(static_cast<int>(served_->argument(0)));
    if (link != nullptr && link->hung) renew(*link);
}

void Gate::flush(Node node) {
    for (Link& link : links_) {
        int unread = 0;
        if (link.node != node || link.hung) continue;
        if (ioctl(link.fd, SIOCOUTQ, &unread) == 0 && (unread > 0 || link.pending)) renew(link);
    }
}

void Gate::pump(Node node) {
    const auto newest = std::find_if(links_.rbegin(), links_.rend(),
                                     [&](const Link& link) { return link.node == node; });
    if (newest != links_.rend() && !newest->hung) pump_link(*newest);
}

void Gate::pump_link(Link& link) {
    while (!link.hung) {
        if (!link.pending && !modem_->next(link.node, link.out)) return;
        last_activity_ = now_;
        link.pending = send(link.fd, link.out.data(), link.out.size(), MSG_NOSIGNAL) < 0;
        if (link.pending) {
            if (errno != EAGAIN) link.pending = false;
            return;
        }
    }
}

void Gate::panic() {
    story_.tell("kernel", "", "panics: the device goes to upload mode");
    gone_ = true;
    if (!on_upload || !on_upload()) end_ = "upload";
}

// Takes what the daemon has said so far. Its log comes first, and again behind each packet: what
// was logged before that packet was sent may have come in since.
void Gate::drain() {
    drain_kernel_log();
    jitter();
    for (size_t i = 0; i < links_.size();) {
        const size_t before = links_.size();
        drain_link(i);
        if (links_.size() == before) i++;
    }
}

// Widens the window between two reads, so that what depends on their order shows.
void Gate::jitter() {
    if (setup_.jitter > 0) usleep(static_cast<useconds_t>(setup_.jitter));
}

void Gate::drain_kernel_log() {
    char record[8192];
    for (size_t i = 0; i < kernel_logs_.size();) {
        const ssize_t n = recv(kernel_logs_[i].fd, record, sizeof(record), 0);
        if (n < 0) {
            i++;
        } else if (n == 0) {
            close(kernel_logs_[i].fd);
            kernel_logs_.erase(kernel_logs_.begin() + static_cast<ptrdiff_t>(i));
        } else {
            last_activity_ = now_;
            idle_.erase(runner_);
            std::string text(record, static_cast<size_t>(n));
            if (text.size() > kLongestRecord)
                story_.violation(format("a kernel log record of %zd bytes: refused", n));
            const bool level = text.size() > 2 && text[0] == '<' && text[2] == '>';
            if (!level) story_.violation("a kernel log record without a level: " + text);
            story_.log_line(level ? text[1] - '0' : 0, level ? text.substr(3) : text);
        }
    }
}

void Gate::drain_link(size_t index) {
    const auto gone = [&] { links_.erase(links_.begin() + static_cast<ptrdiff_t>(index)); };
    if (links_[index].hung) {
        const Link& link = links_[index];
        if (inode(format("/proc/%d/fd/%d", process_.pid, link.daemon_fd)) != link.inode) gone();
        return;
    }
    for (;;) {
        received_.resize(kLongestPacket);
        const ssize_t n = recv(links_[index].fd, received_.data(), received_.size(), 0);
        if (n < 0) break;
        if (n == 0) {
            close(links_[index].fd);
            gone();
            return;
        }
        last_activity_ = now_;
        received_.resize(static_cast<size_t>(n));
        drain_kernel_log();
        modem_->received(links_[index].node, received_);
        if (links_[index].hung) return;
    }
    if (links_[index].pending || setup_.real_time) pump_link(links_[index]);
}

std::map<int, std::string> Gate::descriptors() const {
    std::map<int, std::string> open;
    for (int fd = 3; fd < 1024; fd++) {
        const std::string path = path_of_fd(fd);
        const bool log = std::any_of(kernel_logs_.begin(), kernel_logs_.end(),
                                     [&](const KernelLog& known) { return known.daemon_fd == fd; });
        if (!path.empty() && !log) open[fd] = path;
    }
    return open;
}

}  // namespace rvd::lab

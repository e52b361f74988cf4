#include "lab/gate/calls.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/capability.h>
#include <linux/sched.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <numeric>
#include <optional>

#include "bootdump/lnkm.h"

namespace rvd::lab {

namespace {

constexpr int64_t kDefaultFreeMb = 20'000;
constexpr long kBlock = 1024;  // bytes

constexpr int kRingReadAll = 3;
constexpr int kRingSize = 10;

std::optional<Node> node_of(const std::string& path) {
    if (!starts_with(path, "/dev/")) return {};
    if (path.find("_boot") != std::string::npos) return Node::boot;
    if (path.find("_ramdump") != std::string::npos) return Node::dump;
    return {};
}

size_t length_of(const std::vector<iovec>& buffers) {
    return std::accumulate(buffers.begin(), buffers.end(), size_t{0},
                           [](size_t sum, const iovec& buffer) { return sum + buffer.iov_len; });
}

}  // namespace

void Calls::handle(const Call& call) {
    const auto handler = call.info->handler;
    const bool waits = handler == &Calls::handle_poll || handler == &Calls::handle_sleep;
    if (!waits && handler != &Calls::handle_clock) scheduler.note_activity();
    if (!inject_fault(call)) (this->*handler)(call);
}

void Calls::check_and_continue(const Call& call) {
    if (call.info->when == Intercept::always) check_path(call, path_of(call));
    daemon.continue_call(call);
}

void Calls::end_thread(const Call& call) {
    scheduler.remove(call.tid());
    daemon.continue_call(call);
    // An exiting thread stays in /proc for a moment, where the soak's thread count would include
    // it.
    while (call.tid() != daemon.pid() && daemon.has_thread(call.tid()))
        usleep(50);
}

void Calls::handle_sync(const Call& call) {
    story.request("kernel", "sync");
    daemon.answer(call, 0);
}

// Writes a record to where an argument points, then answers.
void Calls::answer_with_record(const Call& call, int argument, const void* record, size_t size,
                               int64_t result) {
    const bool written = call.memory().write(call.argument(argument), record, size);
    daemon.answer(call, written ? result : -EFAULT);
}

// The daemon's first action is to open the kernel log. Calls before that belong to the C library's
// start-up: they are counted but never fail.
const Fault* Calls::find_fault(const Call& call) {
    const std::string& family = call.info->family;
    in_main_ = in_main_ || path_of(call) == "/dev/kmsg";
    const int nth = ++counts_[family];
    if (in_main_ && backend.on_call) backend.on_call(family, nth, path_of(call), fd_of(call));
    const auto applies = [&](const Fault& fault) {
        return fault.call == family && (fault.path == "*" || matches(fault.path, path_of(call)));
    };
    if (in_main_) return first_triggered(scenario.faults, applies);
    for (const Fault& fault : scenario.faults)
        fault.trigger.seen += applies(fault);
    return nullptr;
}

bool Calls::inject_fault(const Call& call) {
    const Fault* fault = find_fault(call);
    if (fault == nullptr) return false;
    if (backend.on_fault) backend.on_fault(*fault);
    if (fault->stop == Fault::Stop::before) scheduler.wait_in(call, kNever);
    if (fault->stop != Fault::Stop::no) return fault->stop == Fault::Stop::before;
    const std::string what = fault->hang_up ? "hang-up" : fault->cut ? "cut short" : fault->error;
    story.add_message("kernel", "daemon",
                      fmt::format("{} {}: {}", fault->call, path_of(call), what));
    const Links::Link* link = links.find(fd_of(call));
    if (fault->hang_up) {
        if (link != nullptr) links.hang_up(*link->node);
        return false;
    }
    if (call.info->handler == &Calls::handle_ioctl && link != nullptr)
        backend.modem().request_failed(call.argument(1));
    if (fault->cut) {
        transfer_partially(call, static_cast<size_t>(*fault->cut));
    } else if (call.name() == "brk") {
        daemon.answer(call, 0);  // brk() reports no errno
    } else {
        daemon.answer(call, -errno_number(fault->error));
    }
    return true;
}

// The buffers of a read or write in the daemon's memory.
std::vector<iovec> Calls::buffers(const Call& call) const {
    if (call.name() != "writev")
        return {{reinterpret_cast<void*>(call.argument(1)), call.argument(2)}};
    std::vector<iovec> list(call.argument(2));
    call.memory().read(call.argument(1), list.data(), list.size() * sizeof(iovec));
    return list;
}

// Carries out a short read or write on the daemon's open file description, which includes its
// position.
void Calls::transfer_partially(const Call& call, size_t size) {
    const Memory memory = call.memory();
    const std::vector<iovec> source = buffers(call);
    std::vector<char> bytes(std::min(size, length_of(source)));
    const bool reads = call.name() == "read";
    // A packet that is written in part is lost.
    if (!reads && links.find(static_cast<int>(call.argument(0))) != nullptr)
        return daemon.answer(call, static_cast<int64_t>(bytes.size()));
    const ScopedFd file(daemon.copy_fd(static_cast<int>(call.argument(0))));
    ssize_t result = 0;
    if (!bytes.empty() && reads) {
        result = read(file.get(), bytes.data(), bytes.size());
        if (result > 0) memory.write(call.argument(1), bytes.data(), static_cast<size_t>(result));
    } else if (!bytes.empty() && memory.gather(source, bytes.data(), bytes.size())) {
        result = write(file.get(), bytes.data(), bytes.size());
    }
    daemon.answer(call, result < 0 ? -errno : result);
}

std::string Calls::path_of(const Call& call) const {
    std::string path;
    if (call.info->path >= 0) path = call.memory().text(call.argument(call.info->path));
    if (path.empty() && fd_of(call) >= 0) path = path_of_fd(fd_of(call));
    return path;
}

// The call's descriptor, the first one of a poll, or -1.
int Calls::fd_of(const Call& call) const {
    if (call.info->handler == &Calls::handle_poll) {
        const std::vector<pollfd> fds = polled(call);
        return fds.empty() ? -1 : fds[0].fd;
    }
    return call.info->fd < 0 ? -1 : static_cast<int>(call.argument(call.info->fd));
}

std::string Calls::path_of_fd(int fd) const {
    const std::string name = links.name_of(fd);
    if (!name.empty()) return name;
    std::error_code ignored;
    const std::string path =
            phone.inside(std::filesystem::read_symlink(daemon.fd_path(fd), ignored));
    // The kernel shows an unnamed file as "#" and its inode number, which differs between runs.
    return matches("*/#* (deleted)", path) ? path.substr(0, path.rfind('#')) + "#unnamed" : path;
}

// The daemon may change files only in these places.
void Calls::check_path(const Call& call, const std::string& path) {
    static const char* const writable[] = {kLogDirectory,   "/mnt/vendor/", kWakeLockPath,
                                           kWakeUnlockPath, kSimCountPath,  kPropertyDir,
                                           kAndroidLog,     "/dev/null",    "/proc/"};
    const char* coverage = getenv("GCOV_PREFIX");
    const bool allowed = std::any_of(std::begin(writable), std::end(writable),
                                     [&](const char* prefix) { return starts_with(path, prefix); });
    if (!allowed && (coverage == nullptr || !starts_with(path, coverage)))
        story.violation(call.info->family + " changes " + path);
}

void Calls::handle_open(const Call& call) {
    const std::string path = path_of(call);
    const auto& missing = scenario.missing;
    if (std::find(missing.begin(), missing.end(), path) != missing.end())
        return daemon.continue_call(call);
    const auto node = node_of(path);
    if (node) return backend.check_open_count(*node, links.open(call, node));
    if (path == "/dev/kmsg") return void(links.open(call, {}));
    const uint64_t flags = call.argument(call.info->path + 1);
    if ((flags & (O_WRONLY | O_RDWR | O_CREAT)) != 0) check_path(call, path);
    daemon.continue_call(call);
}

void Calls::handle_ioctl(const Call& call) {
    const Links::Link* link = links.find(static_cast<int>(call.argument(0)));
    if (link == nullptr) return daemon.continue_call(call);
    request_ = &call;
    const int64_t result =
            backend.modem().request(*link->node, call.argument(1), call.argument(2), call.memory());
    request_ = nullptr;
    if (device_lost_) return scheduler.wait_in(call, kNever);
    daemon.answer(call, result);
}

void Calls::handle_syslog(const Call& call) {
    const int action = static_cast<int>(call.argument(0));
    if (action == kRingSize) return daemon.answer(call, 1 << 20);
    if (action != kRingReadAll) {
        story.violation("unexpected syslog() action {}", action);
        return daemon.answer(call, -EINVAL);
    }
    std::string ring = story.ring();
    if (scenario.ring) {
        const auto size = static_cast<size_t>(*scenario.ring);
        for (int line = 0; ring.size() < size; line++)
            ring += fmt::format("<6>[    0.000000] filler: line {} of the kernel's log\n", line);
        ring.resize(size);
    }
    const size_t room = std::min<size_t>(ring.size(), call.argument(2));
    const char* latest = ring.data() + ring.size() - room;
    story.add_message("kernel", "daemon", "log ring, " + human_size(room));
    answer_with_record(call, 1, latest, room, static_cast<int64_t>(room));
}

void Calls::handle_statfs(const Call& call) {
    const std::string path = path_of(call);
    struct statfs record {};
    if (statfs(phone.path(path).c_str(), &record) != 0) return daemon.answer(call, -errno);
    int64_t free = kDefaultFreeMb << 20;
    if (scenario.disk && starts_with(path, "/data")) free = phone.disk_room();
    size_t longest = 0;
    for (const auto& [prefix, megabytes] : scenario.free_mb) {
        if (!starts_with(path, prefix) || prefix.size() < longest) continue;
        longest = prefix.size();
        free = megabytes << 20;
    }
    record.f_bsize = kBlock;
    record.f_bfree = static_cast<fsblkcnt_t>(free / kBlock);
    record.f_bavail = record.f_bfree - record.f_bfree / 20;
    record.f_blocks = record.f_bfree * 4;
    answer_with_record(call, 1, &record, sizeof(record));
}

void Calls::handle_identity(const Call& call) {
    const std::string& name = call.name();
    std::string text = name;
    if (name == "prctl") text += fmt::format(" keepcaps {}", call.argument(1));
    if (name == "setuid") text += fmt::format(" {}", call.argument(0));
    if (name == "capset") {
        __user_cap_data_struct data[2] = {};
        call.memory().read(call.argument(1), data, sizeof(data));
        text += fmt::format(
                " effective={:08x}{:08x} permitted={:08x}{:08x} inheritable={:08x}{:08x}",
                data[1].effective, data[0].effective, data[1].permitted, data[0].permitted,
                data[1].inheritable, data[0].inheritable);
    }
    const bool takes_path = call.info->path >= 0;
    if (!takes_path) story.request("kernel", text);
    const bool missing = takes_path && access(phone.path(path_of(call)).c_str(), F_OK) != 0;
    if (phone.real_root() || missing) return daemon.continue_call(call);
    daemon.answer(call, 0);
}

void Calls::handle_clone(const Call& call) {
    uint64_t flags = call.argument(0);
    if (call.name() == "clone3") call.memory().read(call.argument(0), &flags, sizeof(flags));
    if ((flags & CLONE_THREAD) != 0) scheduler.expect_thread();
    daemon.continue_call(call);
}

// The write that fills the virtual disk is short; later writes fail with ENOSPC.
void Calls::handle_write(const Call& call) {
    if (!scenario.disk || !starts_with(path_of(call), "/data/")) return daemon.continue_call(call);
    const auto room = static_cast<uint64_t>(phone.disk_room());
    if (length_of(buffers(call)) <= room) return daemon.continue_call(call);
    if (room == 0) return daemon.answer(call, -ENOSPC);
    transfer_partially(call, room);
}

}  // namespace rvd::lab

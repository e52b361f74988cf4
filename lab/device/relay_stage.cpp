#include "lab/device/relay_stage.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "lab/device/relay_checks.h"
#include "lab/modem/memory.h"
#include "lab/phone/launch.h"

namespace fs = std::filesystem;

namespace rvd::lab {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr uid_t kRadio = 1001;

// A daemon that waits and has been still for so long has nothing more to do.
constexpr milliseconds kStill{400};

// The daemon asks for the state, or closes the node, as soon as it sees a hang-up.
constexpr milliseconds kHangUpPatience{5000};

// A sleep of this length is no step of a pass.
constexpr time_t kParkedSeconds = 200;

std::string node_path(const Scenario& scenario, Node node) {
    return "/dev/" + scenario.prefix() + (node == Node::boot ? "_boot0" : "_ramdump0");
}

void refuse_what_a_kernel_does_not(const Scenario& scenario) {
    const char* what = !scenario.faults.empty()    ? "fault"
                       : !scenario.free_mb.empty() ? "free_mb"
                       : scenario.full_after       ? "full_after"
                       : scenario.ring             ? "ring"
                                                   : nullptr;
    if (what != nullptr)
        throw Unable(scenario.name + ": \"" + what + "\" is the gate's to do, not a real kernel's");
}

}  // namespace

RelayStage::RelayStage(const Scenario& scenario, const Phone& phone, Story& story, Time start,
                       Time now, std::chrono::seconds patience)
    : RunStage(scenario, story),
      phone_(phone),
      limit_(start + scenario.limit),
      give_up_(steady_clock::now() + patience),
      last_activity_(steady_clock::now()) {
    refuse_what_a_kernel_does_not(scenario);
    const timespec time = {now / kSecond, now % kSecond};
    if (clock_settime(CLOCK_REALTIME, &time) != 0) fail_errno("cannot set the clock");
    put_nodes();
    kernel_log_ = open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (kernel_log_ < 0 || lseek(kernel_log_, 0, SEEK_END) < 0)
        fail_errno("cannot read the kernel's log");
    sync();  // what the phone begins with is on its disk, whatever happens
    android_start_ = read_file(phone_.path(kAndroidLog)).size();
}

RelayStage::~RelayStage() {
    end_daemon();
    close(kernel_log_);
}

// The device nodes as a phone has them: the driver's for the radio user, the log for root alone.
void RelayStage::put_nodes() {
    const auto put = [&](const std::string& node, mode_t mode, uid_t owner) {
        const auto& missing = scenario_.missing;
        if (std::find(missing.begin(), missing.end(), node) != missing.end()) return;
        if (chmod(node.c_str(), mode) != 0 || chown(node.c_str(), owner, owner) != 0)
            fail_errno("cannot give away " + node);
        const std::string place = phone_.path(node);
        write_file(place, "");
        if (mount(node.c_str(), place.c_str(), nullptr, MS_BIND, nullptr) != 0)
            fail_errno("cannot bind " + node);
    };
    put(node_path(scenario_, Node::boot), 0660, kRadio);
    put(node_path(scenario_, Node::dump), 0660, kRadio);
    put("/dev/kmsg", 0600, 0);
}

void RelayStage::start_daemon() {
    end_daemon();
    pid_ = fork();
    if (pid_ < 0) fail_errno("cannot fork");
    if (pid_ == 0) become_daemon(phone_.root(), scenario_.args, [] {});
    pidfd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    identified_ = false;
    tell_start();
}

bool RelayStage::reboot() {
    drain_kernel_log();
    check_sinks();
    if (on_down) on_down(false);
    end_ = "reboot";
    return false;
}

void RelayStage::panic() {
    story_.tell("kernel", "", "panics: the device goes to upload mode");
    panics_ = true;
}

// Everything that was to be known of the request is; its caller waits for ever.
void RelayStage::go_down() {
    drain_kernel_log();
    check_sinks();
    if (on_upload) on_upload();
    if (on_down) on_down(true);
    control_.panic(story_.crash_sentence);
}

std::string RelayStage::serve() {
    while (end_.empty()) {
        drain_kernel_log();
        run_due_events();
        pump(Node::boot);
        pump(Node::dump);
        if (end_.empty()) wait_for_something();
        if (end_.empty()) notice_rest();
        if (steady_clock::now() > give_up_) {
            story_.violation("the run took too long");
            end_ = "timeout";
        }
    }
    drain_kernel_log();
    if (end_ != "reboot") check_sinks();
    end_daemon();
    return end_;
}

void RelayStage::wait_for_something() {
    int timeout = 100;
    if (!events_.empty())
        timeout = static_cast<int>(
                std::clamp<Time>((events_.begin()->first - now()) / kMillisecond, 0, timeout));
    pollfd set[] = {{control_.fd(), POLLIN, 0}, {kernel_log_, POLLIN, 0}, {pidfd_, POLLIN, 0}};
    poll(set, std::size(set), timeout);
    story_.set_time(now());
    RelayControl::Event event;
    while (end_.empty() && control_.next(event)) {
        last_activity_ = steady_clock::now();
        drain_kernel_log();
        handle(event);
    }
    if (end_.empty() && (set[2].revents & POLLIN) != 0) reap();
}

void RelayStage::handle(const RelayControl::Event& event) {
    Link* link = link_with(event.head.open);
    switch (event.head.kind) {
        case RELAY_OPEN:
            return open_node(event);
        case RELAY_CLOSE:
            if (link != nullptr) links_.erase(links_.begin() + (link - links_.data()));
            return;
        case RELAY_IOCTL:
            return serve_request(event);
        case RELAY_WRITE:
            if (link != nullptr) modem_->received(link->node, event.data);
            return;
        case RELAY_WAIT:
            if (link == nullptr) return;
            link->waits_for_hang_up = (event.head.request & POLLIN) == 0;
            if (link->waits_for_hang_up && on_wait) on_wait();
            return;
        case RELAY_ROOM:
            return;  // every turn of the loop pumps
        default:
            story_.violation(format("an event of kind %u from the relay", event.head.kind));
    }
}

void RelayStage::open_node(const RelayControl::Event& event) {
    if (!identified_) check_identity();
    const Node node = event.head.node == RELAY_NODE_BOOT ? Node::boot : Node::dump;
    links_.push_back({node, event.head.open});
    control_.answer(event, 0);
    const auto open = std::count_if(links_.begin(), links_.end(),
                                    [&](const Link& link) { return link.node == node; });
    check_opens(node, static_cast<size_t>(open));
}

void RelayStage::serve_request(const RelayControl::Event& event) {
    const Link* link = link_with(event.head.open);
    if (link == nullptr) return control_.answer(event, -ENODEV);
    RelayMemory memory(control_, event);
    served_ = &event;
    const int64_t result =
            modem_->request(link->node, event.head.request, event.head.argument, memory);
    served_ = nullptr;
    if (panics_) go_down();
    control_.answer(event, result, memory.answer());
}

RelayStage::Link* RelayStage::link_with(uint64_t id) {
    const auto found = std::find_if(links_.begin(), links_.end(),
                                    [&](const Link& link) { return link.id == id; });
    return found == links_.end() ? nullptr : &*found;
}

void RelayStage::hang_up(Node node) {
    for (Link& link : links_) {
        if (link.node != node || link.hung) continue;
        link.hung = true;
        link.hung_since = steady_clock::now();
        link.waits_for_hang_up = false;
        link.out.clear();
        control_.hang_up(link.id, true);
    }
}

void RelayStage::end_hang_up() {
    Link* link = link_with(served_->head.open);
    if (link == nullptr || !link->hung) return;
    link->hung = false;
    control_.hang_up(link->id, false);
}

void RelayStage::flush(Node node) {
    for (Link& link : links_) {
        if (link.node != node) continue;
        link.out.clear();
        control_.flush(link.id);
    }
}

void RelayStage::pump(Node node) {
    const auto newest = std::find_if(links_.rbegin(), links_.rend(),
                                     [&](const Link& link) { return link.node == node; });
    if (newest == links_.rend()) return;
    const uint64_t id = newest->id;
    for (Link* link = link_with(id); link != nullptr && !link->hung; link = link_with(id)) {
        if (link->out.empty()) {
            Packet packet;
            if (!modem_->next(node, packet)) return;
            link->out.push_back(std::move(packet));
            if (link->hung) link->out.clear();
        }
        if (link->out.empty()) return;
        const auto delivery = control_.deliver(id, link->out.front());
        if (delivery == RelayControl::Delivery::full) return;
        link->out.pop_front();
        if (delivery == RelayControl::Delivery::gone) return;
    }
}

Time RelayStage::now() const {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return time.tv_sec * kSecond + time.tv_nsec;
}

// The daemon's records in the kernel's own log, as any reader of it gets them.
void RelayStage::drain_kernel_log() {
    char record[8192];
    for (;;) {
        const ssize_t n = read(kernel_log_, record, sizeof(record));
        if (n < 0 && errno == EPIPE) {
            story_.violation("the kernel's log ran over before it was read");
            continue;
        }
        if (n <= 0) return;
        int level = 0;
        std::string text;
        if (!parse_kernel_record(std::string(record, static_cast<size_t>(n)), level, text))
            continue;
        last_activity_ = steady_clock::now();
        kernel_lines_.push_back(format("%d", level) + text);
        story_.log_line(level, text + "\n");  // the kernel takes one off
    }
}

void RelayStage::reap() {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) != pid_) return;
    drain_kernel_log();
    pid_ = -1;
    take_end(status);
}

// With nothing to come and all of the daemon's threads but the waiting one gone, this is the end.
void RelayStage::notice_rest() {
    if (now() > limit_) end_ = "limit";
    for (const Link& link : links_) {
        if (!link.hung || steady_clock::now() - link.hung_since < kHangUpPatience) continue;
        story_.violation(std::string("a hang-up of the ") + node_name(link.node) +
                         " node is not handled");
        end_ = "timeout";
    }
    if (!events_.empty() || steady_clock::now() - last_activity_ < kStill) return;
    const bool waits = std::any_of(links_.begin(), links_.end(),
                                   [](const Link& link) { return link.waits_for_hang_up; });
    if (!alone()) return;
    if (waits) {
        end_ = "waits";
    } else if (parked()) {
        end_ = "parked";
    }
}

// Whether the main thread is the only one.
bool RelayStage::alone() const {
    std::error_code none;
    const fs::directory_iterator threads(format("/proc/%d/task", pid_), none);
    return !none && std::distance(begin(threads), end(threads)) == 1;
}

// Whether the daemon is in a sleep that no pass has; its own call's record tells.
bool RelayStage::parked() const {
    long number = -1;
    unsigned long clock = 0, flags = 0, span = 0;
    const std::string call = read_file(format("/proc/%d/syscall", pid_));
    if (sscanf(call.c_str(), "%ld %lx %lx %lx", &number, &clock, &flags, &span) != 4) return false;
    timespec time{};
    return number == SYS_clock_nanosleep && ProcessMemory(pid_).read(span, &time, sizeof(time)) &&
           time.tv_sec >= kParkedSeconds;
}

void RelayStage::end_daemon() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    if (pidfd_ >= 0) close(pidfd_);
    pid_ = pidfd_ = -1;
    RelayControl::Event event;
    while (control_.next(event)) {
        if (event.head.call != 0) control_.answer(event, -ENODEV);
    }
    links_.clear();
    served_ = nullptr;
}

// While log-saving threads are at work, theirs come and go among the main thread's.
std::map<int, std::string> RelayStage::descriptors() const {
    std::map<int, std::string> open;
    if (!alone()) return open;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(format("/proc/%d/fd", pid_), none)) {
        const int fd = atoi(entry.path().filename().c_str());
        std::string path = fs::read_symlink(entry.path(), none);
        if (path.compare(0, phone_.root().size(), phone_.root()) == 0)
            path.erase(0, phone_.root().size());
        if (path == node_path(scenario_, Node::boot)) path = "/dev/boot";
        if (path == node_path(scenario_, Node::dump)) path = "/dev/dump";
        if (fd > 2 && path != "/dev/kmsg") open[fd] = path;
    }
    return open;
}

void RelayStage::check_identity() {
    identified_ = true;
    const auto& args = scenario_.args;
    const auto option = std::find(args.begin(), args.end(), "-o");
    const bool root = option != args.end() && option + 1 != args.end() &&
                      (option + 1)->find('r') != std::string::npos;
    for (const std::string& wrong :
         identity_faults(read_file(format("/proc/%d/status", pid_)), root))
        story_.violation(wrong);
}

void RelayStage::check_sinks() {
    const std::string android = read_file(phone_.path(kAndroidLog)).substr(android_start_);
    for (const std::string& wrong : sink_faults(kernel_lines_, android))
        story_.violation(wrong);
}

}  // namespace rvd::lab

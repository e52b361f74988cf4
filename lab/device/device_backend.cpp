// The backend on a real kernel: character devices for the nodes, and the machine's own log, clock,
// disk and capabilities. If the machine is the phone (--notebook), its clock is set to the
// scenario's and it really panics and reboots; otherwise only the daemon is restarted.
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/capability.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <utility>

#include "bootdump/lnkm.h"
#include "lab/device/device_node.h"
#include "lab/device/kernel_log.h"
#include "lab/phone/private_root.h"
#include "lab/run/run.h"

namespace fs = std::filesystem;

namespace rvd::lab {

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr char kCapabilities[] =
        "cap_net_admin,cap_net_raw,cap_sys_admin,cap_sys_boot,cap_syslog,cap_block_suspend=ep";
constexpr milliseconds kIdle{400};  // a daemon that waits and is idle for this long has finished
constexpr time_t kParkedSeconds = 200;  // longer than any sleep within a pass

void reject_gate_only_keys(const Scenario& scenario) {
    const char* what = !scenario.faults.empty()    ? "fault"
                       : !scenario.free_mb.empty() ? "free_mb"
                       : scenario.disk             ? "disk"
                       : scenario.ring             ? "ring"
                                                   : nullptr;
    if (what != nullptr)
        throw Error(scenario.name + ": \"" + what + "\" works on the gate only, not with --device");
}

void write_kernel_file(const char* path, const std::string& text) {
    if (!(std::ofstream(path) << text << std::flush)) throw_errno(path);
}

// Starts the daemon as init does: with the groups and the capabilities of its .rc file.
void become_service() {
    const gid_t groups[] = {kRadio, kLogGroup};
    const cap_t capabilities = cap_from_text(kCapabilities);
    for (cap_value_t capability = 0; capability < cap_max_bits(); capability++) {
        cap_flag_value_t kept = CAP_CLEAR;
        cap_get_flag(capabilities, capability, CAP_PERMITTED, &kept);
        if (kept == CAP_CLEAR && capability != CAP_SETUID) cap_drop_bound(capability);
    }
    if (setgroups(std::size(groups), groups) != 0 || setgid(kRadio) != 0) _exit(127);
}

class DeviceBackend : public RunBackend {
  public:
    DeviceBackend(const Scenario& scenario, const Phone& phone, Story& story,
                  const RunOptions& options, Time start, Time now)
        : RunBackend(scenario, phone, story, options),
          machine_is_phone_(!options.notebook.empty()),
          start_(start) {
        reject_gate_only_keys(scenario);
        const timespec time = {now / kSecond, now % kSecond};
        if (machine_is_phone_ && clock_settime(CLOCK_REALTIME, &time) != 0)
            throw_errno("cannot set the clock");
        put_node(boot_path_, 0660, kRadio);
        put_node(dump_path_, 0660, kRadio);
        put_node("/dev/kmsg", 0600, 0);
        for (const char* file : {kAndroidLog, kWakeLockPath, kWakeUnlockPath})
            chmod(phone_.path(file).c_str(), 0664);  // for the group that the daemon starts in
        const std::string prepare = options_.prepare + " " + phone_.root();
        if (!options_.prepare.empty() && system(prepare.c_str()) != 0)
            throw Error("failed: " + prepare);
        sync();  // a panic must not lose the phone's initial files
        android_start_ = read_file(phone_.path(kAndroidLog)).size();
    }

    void start_daemon() override {
        end_daemon();
        pid_ = fork();
        if (pid_ < 0) throw_errno("cannot fork");
        if (pid_ == 0) phone_.become_daemon(become_service);
        pidfd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
        checked_ = false;
        report_start();
    }

    bool reboot() override {
        if (!machine_is_phone_) return RunBackend::reboot();
        drain_kernel_log();
        check_logs();
        if (on_machine_down) on_machine_down(false);
        end_ = "reboot";
        return false;
    }

    std::string run() override {
        while (end_.empty()) {
            drain_kernel_log();
            run_due_events();
            if (end_.empty()) wait_for_activity();
            if (end_.empty()) detect_end();
            check_timeout();
        }
        drain_kernel_log();
        if (end_ != "reboot") check_logs();
        end_daemon();
        return end_;
    }

    pid_t daemon() const override { return pid_; }

    // Other threads, which save logs, may open and close descriptors at any time.
    std::string path_of(int fd) const override {
        std::error_code ignored;
        if (!is_single_threaded()) return "";
        const std::string link = proc(("fd/" + std::to_string(fd)).c_str());
        const std::string path = phone_.inside(fs::read_symlink(link, ignored));
        return path == boot_path_ ? "/dev/boot" : path == dump_path_ ? "/dev/dump" : path;
    }

    Time now() const override {
        return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch())
                .count();
    }

    void hang_up(Node node) override { at(node).hang_up(); }

    void clear_hang_up() override {
        for (DeviceNode& node : nodes_)
            node.clear_hang_up();
    }

    void discard_unread(Node node) override { at(node).discard_unread(); }
    void send_packets(Node node) override { at(node).send_packets(); }
    void panic() override { panic_pending_ = true; }

  private:
    DeviceNode& at(Node node) { return nodes_[node == Node::dump]; }

    // Bind-mounts a device node into the phone, with the phone's owner and mode.
    void put_node(const std::string& path, mode_t mode, uid_t owner) const {
        const auto& missing = scenario_.missing;
        if (std::find(missing.begin(), missing.end(), path) != missing.end()) return;
        const std::string place = phone_.path(path);
        write_file(place, "");
        if (mount(path.c_str(), place.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
            chmod(place.c_str(), mode) != 0 || chown(place.c_str(), owner, owner) != 0)
            throw_errno("cannot give the phone " + path);
    }

    void wait_for_activity() {
        const Time next = events_.empty() ? kNever : events_.begin()->first - now();
        pollfd set[] = {{nodes_[0].fd(), POLLIN, 0},
                        {nodes_[1].fd(), POLLIN, 0},
                        {kernel_log_.fd(), POLLIN, 0},
                        {pidfd_, POLLIN, 0}};
        poll(set, std::size(set), static_cast<int>(std::clamp<Time>(next / kMillisecond, 0, 100)));
        story_.set_time(now());
        for (const Node node : {Node::boot, Node::dump}) {
            if (end_.empty() && set[node == Node::dump].revents != 0) serve_node(node);
        }
        int status = 0;
        if (!end_.empty() || set[3].revents == 0 || waitpid(pid_, &status, 0) != pid_) return;
        drain_kernel_log();
        pid_ = -1;
        record_exit(status);
    }

    void serve_node(Node which) {
        DeviceNode& node = at(which);
        const size_t opens = node.opens();
        const bool waited = node.awaits_hang_up();
        last_activity_ = Clock::now();
        drain_kernel_log();
        node.process_message();
        if (node.opens() > opens) {
            check_identity();
            check_open_count(which, node.opens());
        }
        if (panic_pending_) return enter_panic();
        node.answer();
        if (!waited && node.awaits_hang_up() && on_wait) on_wait();
    }

    // The kernel's own crash record does not contain the reason, so it is logged first. The request
    // is never answered.
    void enter_panic() {
        panic_pending_ = false;
        write_kernel_file("/dev/kmsg", "<0>rvd-lab: panic: " + story_.panic_reason + "\n");
        drain_kernel_log();
        enter_upload_mode();
        if (!machine_is_phone_) return;
        check_logs();
        if (on_machine_down) on_machine_down(true);
        write_kernel_file("/proc/sysrq-trigger", "c");
    }

    void drain_kernel_log() {
        int level = 0;
        for (std::string text; kernel_log_.next(level, text);) {
            last_activity_ = Clock::now();
            story_.log_line(level, text + "\n");  // the kernel strips one
        }
    }

    // The run ends when no event is pending and only the daemon's main thread is left, waiting.
    void detect_end() {
        if (now() > start_ + scenario_.limit) end_ = "limit";
        if (!end_.empty() || !events_.empty() || Clock::now() - last_activity_ < kIdle ||
            !is_single_threaded())
            return;
        if (nodes_[0].awaits_hang_up() || nodes_[1].awaits_hang_up()) {
            end_ = "waits";
        } else if (parked()) {
            end_ = "parked";
        }
    }

    // Whether the main thread is the only one: a directory has a link per subdirectory, plus two.
    bool is_single_threaded() const {
        std::error_code ignored;
        return fs::hard_link_count(proc("task"), ignored) == 3;
    }

    // Whether the daemon sleeps longer than it does in any pass. /proc shows the call's arguments.
    bool parked() const {
        long number = -1;
        unsigned long clock = 0, flags = 0, span = 0;
        timespec time{};
        return sscanf(read_file(proc("syscall")).c_str(), "%ld %lx %lx %lx", &number, &clock,
                      &flags, &span) == 4 &&
               number == SYS_clock_nanosleep && Memory(pid_).read(span, &time, sizeof(time)) &&
               time.tv_sec >= kParkedSeconds;
    }

    // A killed daemon exits only once its pending calls, close() included, have been answered.
    void end_daemon() {
        if (pid_ > 0) kill(pid_, SIGKILL);
        while (pid_ > 0) {
            pollfd set[] = {
                    {nodes_[0].fd(), POLLIN, 0}, {nodes_[1].fd(), POLLIN, 0}, {pidfd_, POLLIN, 0}};
            for (DeviceNode& node : nodes_)
                node.fail_pending();
            poll(set, std::size(set), -1);
            for (size_t i = 0; i < std::size(nodes_); i++) {
                if (set[i].revents != 0) nodes_[i].process_message();
            }
            if (set[2].revents != 0 && waitpid(pid_, nullptr, 0) == pid_) pid_ = -1;
        }
        for (DeviceNode& node : nodes_)
            node.fail_pending();
        if (pidfd_ >= 0) close(pidfd_);
        pidfd_ = -1;
    }

    // Runs once for each start of the daemon.
    void check_identity() {
        if (std::exchange(checked_, true)) return;
        const auto& args = scenario_.args;
        const auto option = std::find(args.begin(), args.end(), "-o");
        const bool root = option < args.end() - 1 && (option + 1)->find('r') != std::string::npos;
        const char* user = root ? "\nUid:\t0\t0\t0\t0\n" : "\nUid:\t1001\t1001\t1001\t1001\n";
        if (read_file(proc("status")).find(user) == std::string::npos)
            story_.violation(std::string("the daemon's user is not") + user);
        const std::string capabilities = cap_to_text(cap_get_pid(pid_), nullptr);
        if (!root && capabilities != kCapabilities)
            story_.violation("the daemon's capabilities are " + capabilities);
    }

    void check_logs() {
        const std::string lines =
                kernel_log_.differences(read_file(phone_.path(kAndroidLog)).substr(android_start_));
        if (!lines.empty()) story_.violation("lines that only one of the two logs has:\n" + lines);
    }

    std::string proc(const char* file) const {
        return "/proc/" + std::to_string(pid_) + "/" + file;
    }

    const bool machine_is_phone_;
    const Time start_;
    const std::string boot_path_ = "/dev/" + scenario_.prefix() + "_boot0";
    const std::string dump_path_ = "/dev/" + scenario_.prefix() + "_ramdump0";
    DeviceNode nodes_[2] = {{Node::boot, boot_path_, modem()}, {Node::dump, dump_path_, modem()}};
    KernelLog kernel_log_;
    size_t android_start_;  // offset of this daemon's lines in the Android log
    int pid_ = -1, pidfd_ = -1;
    bool checked_ = false, panic_pending_ = false;
    Clock::time_point last_activity_ = Clock::now();
};

}  // namespace

std::unique_ptr<RunBackend> make_device_backend(const Scenario& scenario, const Phone& phone,
                                                Story& story, const RunOptions& options, Time start,
                                                Time now) {
    return std::make_unique<DeviceBackend>(scenario, phone, story, options, start, now);
}

}  // namespace rvd::lab

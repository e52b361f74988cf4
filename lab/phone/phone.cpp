#include "lab/phone/phone.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "bootdump/lnkm.h"

namespace fs = std::filesystem;

namespace rvd::lab {

namespace {

constexpr char kMarker[] = "/.rvd-lab";  // in a kept root: what is here may be replaced

bool is_real_root = false;

uid_t owner() {
    return is_real_root ? kRadio : 0;
}

void put_property(const Tree& tree, const std::string& name, const std::string& value,
                  uid_t owner) {
    const std::string inside = std::string(kPropertyDir) + "/" + name;
    tree.write(inside, value);
    tree.own(inside, owner);
}

// Whether this user exists here: a container's root may be the only one.
bool is_mapped(uid_t user) {
    std::ifstream map("/proc/self/uid_map");
    uint64_t first = 0, outside = 0, count = 0;
    while (map >> first >> outside >> count) {
        if (user >= first && user - first < count) return true;
    }
    return false;
}

// The first process of a process-number namespace takes all others with it when it dies. It does so
// when this one has: the other end of its pipe is closed then, however soon that is.
void start_guardian() {
    int life[2];
    if (pipe2(life, O_CLOEXEC) != 0) fail_errno("cannot make a pipe");
    const pid_t pid = fork();
    if (pid < 0) fail_errno("cannot fork");
    if (pid > 0) {
        close(life[0]);
        return;
    }
    close(life[1]);
    char none = 0;
    while (read(life[0], &none, sizeof(none)) < 0 && errno == EINTR) {
    }
    _exit(0);
}

}  // namespace

void enter_namespaces() {
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    is_real_root = uid == 0 && is_mapped(kRadio) && unshare(CLONE_NEWNS | CLONE_NEWPID) == 0;
    if (!is_real_root) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWPID) != 0) {
            throw Forbidden(
                    std::string("this kernel gives an ordinary user no user namespace (") +
                    strerror(errno) +
                    "). Run rvd-lab as root, or allow it: sysctl user.max_user_namespaces above 0, "
                    "kernel.unprivileged_userns_clone=1, or where AppArmor restricts it, "
                    "kernel.apparmor_restrict_unprivileged_userns=0; in a container, start it "
                    "with the right to unshare and mount.");
        }
        write_once("/proc/self/setgroups", "deny");
        write_once("/proc/self/uid_map", fmt::format("0 {} 1", uid));
        write_once("/proc/self/gid_map", fmt::format("0 {} 1", gid));
    }
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        forbid_errno("cannot keep mounts private (in a chroot, the root must be a mount point)");
    start_guardian();
}

bool Phone::real_root() {
    return is_real_root;
}

Phone::Phone(const Scenario& scenario, const std::string& directory, bool keep)
    : scenario_(scenario), tree_(directory), keep_(keep), partition_(scenario, directory) {}

void Phone::build(const std::string& daemon_binary) {
    if (keep_) {
        if (!fs::is_empty(root()) && !fs::exists(path(kMarker)))
            throw Unable(root() + " is not empty and was not made by rvd-lab");
        for (const auto& entry : fs::directory_iterator(root()))
            fs::remove_all(entry);
        tree_.write(kMarker, "");
    } else if (mount("tmpfs", root().c_str(), "tmpfs", MS_NOSUID, "mode=0755") != 0) {
        forbid_errno("cannot mount the phone's root");
    }
    mount_system();
    make_tree();
    put_daemon(daemon_binary);
}

void Phone::resume(const std::string& daemon_binary) {
    mount_system();
    put_cmdline();
    put_daemon(daemon_binary);
}

void Phone::put_cmdline() const {
    bind(path("/run/rvd/cmdline"), "/proc/cmdline", true);
}

void Phone::put_daemon(const std::string& binary) const {
    tree_.write(kDaemonPath, "");
    bind(binary, kDaemonPath, true);
    if (!partition_.image().empty()) bind(partition_.image(), kPartitionPath, true);
    for (const std::string& directory : scenario_.read_only) {
        tree_.make_directory(directory);
        bind(path(directory), directory, true);
    }
}

void Phone::bind(const std::string& from, const std::string& to, bool read_only) const {
    const std::string target = path(to);
    if (mount(from.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
        forbid_errno("cannot bind " + from + " to " + target);
    if (!read_only) return;
    mount_attr attributes{};
    attributes.attr_set = MOUNT_ATTR_RDONLY;
    if (mount_setattr(-1, target.c_str(), AT_RECURSIVE, &attributes, sizeof(attributes)) != 0)
        forbid_errno("cannot make " + target + " read-only");
}

// What a dynamic linker and a sanitizer's run-time library need, from the machine, read-only.
void Phone::mount_system() const {
    for (const char* directory : {"/usr", "/lib", "/lib64", "/bin"}) {
        std::error_code none;
        if (fs::is_symlink(directory, none)) {
            fs::copy_symlink(directory, path(directory), none);
        } else if (fs::is_directory(directory, none)) {
            tree_.make_directory(directory);
            bind(directory, directory, true);
        }
    }
    for (const char* directory : {"/proc", "/etc", "/dev", "/vendor/bin", "/tmp"})
        tree_.make_directory(directory);
    bind("/proc", "/proc", false);
    for (const char* node : {"/dev/null", "/dev/zero", "/dev/urandom"}) {
        tree_.write(node, "");
        bind(node, node, false);
    }
    if (fs::exists("/etc/ld.so.cache")) fs::copy("/etc/ld.so.cache", path("/etc/ld.so.cache"));
    if (const char* prefix = getenv("GCOV_PREFIX")) {
        tree_.make_directory(prefix);
        bind(prefix, prefix, false);
    }
}

void Phone::make_tree() const {
    for (const char* directory :
         {"/data/vendor/log", "/efs", "/mnt/vendor/efs", "/sys/power", "/dev/block/by-name",
          "/sys/devices/platform/lnkm/sim", kPropertyDir}) {
        tree_.make_directory(directory);
        tree_.own(directory, owner());
    }
    for (const char* file : {kWakeLockPath, kWakeUnlockPath, kSimCountPath, kAndroidLog, kOutput}) {
        tree_.write(file, "");
        tree_.own(file, owner());
    }
    tree_.write("/run/rvd/cmdline", scenario_.cmdline + "\n");
    put_cmdline();
    tree_.write("/etc/group",
                scenario_.log_group ? fmt::format("log:x:{}:\n", kLogGroup) : "root:x:0:\n");
    partition_.write();
    if (fs::exists(path(scenario_.nv_path()))) tree_.own(scenario_.nv_path(), owner());
    put_scenario_files(scenario_, tree_, owner());
}

void put_scenario_files(const Scenario& scenario, const Tree& tree, uid_t owner) {
    for (const auto& [name, value] : scenario.properties)
        put_property(tree, name, value, owner);
    for (const auto& [file, content] : scenario.files) {
        const bool directory = file.back() == '/';
        const std::string bare = directory ? file.substr(0, file.size() - 1) : file;
        tree.make_directory(directory ? bare : fs::path(file).parent_path().string());
        if (!directory) tree.write(file, content);
        for (std::string at = bare; at.compare(0, 16, "/data/vendor/log") == 0 || at == bare;
             at = fs::path(at).parent_path())
            tree.own(at, owner);
    }
    for (const std::string& missing : scenario.missing)
        tree.remove(missing);
}

std::string Phone::property(const std::string& name) const {
    return read_file(path(kPropertyDir) + "/" + name);
}

void Phone::set_property(const std::string& name, const std::string& value) const {
    put_property(tree_, name, value, owner());
}

void Phone::clear_properties() const {
    for (const auto& entry : fs::directory_iterator(path(kPropertyDir))) {
        if (entry.path().filename().string().compare(0, 8, "persist.") != 0)
            fs::remove(entry.path());
    }
    for (const auto& [name, value] : scenario_.properties) {
        if (name.compare(0, 8, "persist.") != 0) set_property(name, value);
    }
}

}  // namespace rvd::lab

#include "lab/phone/phone.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "bootdump/lnkm.h"
#include "lab/phone/private_root.h"

namespace fs = std::filesystem;

namespace rvd::lab {

namespace {

constexpr char kDaemon[] = "/vendor/bin/rvd";
constexpr char kCmdline[] = "/run/rvd/cmdline";
constexpr char kMarker[] = "/.rvd-lab";  // marks a kept root, which the next run may delete

std::string place_of(const std::string& property) {
    return std::string(kPropertyDir) + "/" + property;
}

bool persists(const std::string& property) {
    return starts_with(property, "persist.");
}

void make_directory(const fs::path& path) {
    std::error_code error;
    fs::create_directories(path, error);
    if (error) throw Error("cannot make " + path.string() + ": " + error.message());
}

void set_owner(const std::string& path, uid_t owner) {
    if (lchown(path.c_str(), owner, owner) != 0) throw_errno("cannot change the owner of " + path);
}

void put_file(const std::string& path, const std::string& content, uid_t owner) {
    write_file(path, content);
    set_owner(path, owner);
}

// Starts the PID namespace's init. It exits when this process does, which closes the pipe; the
// kernel then kills all other processes of the namespace.
void start_namespace_init() {
    int alive[2];
    if (pipe2(alive, O_CLOEXEC) != 0) throw_errno("cannot make a pipe");
    const pid_t pid = fork();
    if (pid < 0) throw_errno("cannot fork");
    close(alive[pid > 0 ? 0 : 1]);
    if (pid > 0) return;
    char ignored = 0;
    while (read(alive[0], &ignored, sizeof(ignored)) < 0 && errno == EINTR) {
    }
    _exit(0);
}

// A sanitizer looks for its threads in /proc. It is mounted by a child, since this process itself
// is not in the new PID namespace.
bool mount_proc(const std::string& at) {
    const pid_t pid = fork();
    if (pid < 0) throw_errno("cannot fork");
    if (pid == 0) _exit(mount("proc", at.c_str(), "proc", 0, nullptr) != 0);
    int status = -1;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status == 0;
}

// The daemon's environment: for the platform libraries, sanitizers and coverage.
std::vector<std::string> environment() {
    std::vector<std::string> variables = {std::string("RVD_PROPERTY_DIR=") + kPropertyDir,
                                          std::string("RVD_ANDROID_LOG=") + kAndroidLog};
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS",
                             "GCOV_PREFIX", "GCOV_PREFIX_STRIP"}) {
        if (const char* value = getenv(name)) variables.push_back(std::string(name) + "=" + value);
    }
    return variables;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> list;
    for (std::string& text : texts)
        list.push_back(text.data());
    list.push_back(nullptr);
    return list;
}

}  // namespace

Phone::Phone(const Scenario& scenario, const std::string& directory, bool keep)
    : scenario_(scenario),
      root_(directory),
      keep_(keep),
      real_root_(enter_namespaces(CLONE_NEWNS | CLONE_NEWPID)),
      owner_(real_root_ ? kRadio : 0),
      partition_(scenario, directory) {
    start_namespace_init();
}

void Phone::build(const std::string& daemon_binary, bool resume) {
    if (!resume) {
        make_root();
        make_tree();
    }
    share_host_files();
    bind_daemon(daemon_binary);
}

void Phone::make_root() const {
    if (keep_) {
        if (!fs::is_empty(root()) && !fs::exists(path(kMarker)))
            throw Error(root() + " is not empty and was not made by rvd-lab");
        for (const auto& entry : fs::directory_iterator(root()))
            fs::remove_all(entry);
        write_file(path(kMarker), "");
    } else if (mount("tmpfs", root().c_str(), "tmpfs", MS_NOSUID, "mode=0755") != 0) {
        throw_unsupported_errno("cannot mount the phone's root");
    }
}

// What the dynamic linker and a sanitizer's run-time library need.
void Phone::share_host_files() const {
    for (const char* path : {"/usr", "/lib", "/lib64", "/bin", "/etc/ld.so.cache"})
        share(path, root(), true);
    for (const char* path : {"/dev/null", "/dev/zero", "/dev/urandom"})
        share(path, root());
    make_directory(path("/proc"));
    // In a container the kernel may refuse the mount.
    if (!mount_proc(path("/proc"))) share("/proc", root());
    if (const char* prefix = getenv("GCOV_PREFIX")) share(prefix, root());
    bind_mount(path(kCmdline), path("/proc/cmdline"), true);
}

// The root is new, so it has no symbolic link of the daemon's that leads out of it.
void Phone::make_tree() const {
    for (const char* directory : {"/etc", "/tmp", "/vendor/bin"})
        make_directory(path(directory));
    for (const char* directory :
         {"/data/vendor/log", "/efs", "/mnt/vendor/efs", "/sys/power", "/dev/block/by-name",
          "/sys/devices/platform/lnkm/sim", kPropertyDir}) {
        make_directory(path(directory));
        set_owner(path(directory), owner_);
    }
    for (const char* file : {kWakeLockPath, kWakeUnlockPath, kSimCountPath, kAndroidLog, kOutput})
        put_file(path(file), "", owner_);
    write_file(path(kCmdline), scenario_.cmdline + "\n");
    write_file(path("/etc/group"),
               scenario_.log_group ? fmt::format("log:x:{}:\n", kLogGroup) : "root:x:0:\n");
    partition_.write();
    if (fs::exists(path(scenario_.nv_path()))) set_owner(path(scenario_.nv_path()), owner_);
    put_scenario_files(scenario_, root_, owner_);
}

void Phone::bind_daemon(const std::string& binary) const {
    write_file(path(kDaemon), "");
    bind_mount(binary, path(kDaemon), true);
    if (!partition_.image().empty()) bind_mount(partition_.image(), path(kPartitionPath), true);
    for (const std::string& directory : scenario_.read_only) {
        make_directory(path(directory));
        bind_mount(path(directory), path(directory), true);
    }
}

void put_scenario_files(const Scenario& scenario, const std::string& root, uid_t owner) {
    const std::string logs = root + "/data/vendor/log";
    for (const auto& [name, value] : scenario.properties)
        put_file(root + place_of(name), value, owner);
    for (const auto& [inside, content] : scenario.files) {
        const fs::path file = root + inside;
        make_directory(file.parent_path());
        if (file.has_filename()) write_file(file, content);
        const fs::path target = file.has_filename() ? file : file.parent_path();
        set_owner(target, owner);
        for (fs::path at = target; starts_with(at.string(), logs); at = at.parent_path())
            set_owner(at, owner);
    }
    for (const std::string& missing : scenario.missing)
        fs::remove_all(root + missing);
}

std::vector<fs::directory_entry> Phone::files(const std::string& directory) const {
    std::vector<fs::directory_entry> files;
    std::error_code ignored;
    for (const auto& entry : fs::recursive_directory_iterator(path(directory), ignored)) {
        if (entry.is_regular_file()) files.push_back(entry);
    }
    return files;
}

Files Phone::closed_files(const std::vector<std::string>& open) const {
    Files contents;
    for (const char* directory : {"/data", "/efs", "/mnt", "/dev/block"}) {
        for (const auto& file : files(directory)) {
            const std::string path = inside(file.path());
            if (!std::binary_search(open.begin(), open.end(), path))
                contents[path] = read_file(file.path());
        }
    }
    return contents;
}

int64_t Phone::disk_room() const {
    int64_t room = scenario_.disk.value_or(INT64_MAX);
    for (const auto& file : files("/data"))
        room -= static_cast<int64_t>(file.file_size());
    return std::max<int64_t>(room, 0);
}

std::string Phone::property(const std::string& name) const {
    return read_file(path(place_of(name)));
}

void Phone::set_property(const std::string& name, const std::string& value) const {
    put_file(path(place_of(name)), value, owner_);
}

void Phone::clear_properties() const {
    for (const auto& entry : fs::directory_iterator(path(kPropertyDir))) {
        if (!persists(entry.path().filename())) fs::remove(entry.path());
    }
    for (const auto& [name, value] : scenario_.properties) {
        if (!persists(name)) set_property(name, value);
    }
}

void Phone::become_daemon(const std::function<void()>& last) const {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::vector<std::string> words = scenario_.args, variables = environment();
    words.insert(words.begin(), kDaemon);
    const std::vector<char*> argv = pointers(words), envp = pointers(variables);
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(open(path(kOutput).c_str(), O_WRONLY | O_APPEND), STDOUT_FILENO);
    dup2(STDOUT_FILENO, STDERR_FILENO);
    close_range(STDERR_FILENO + 1, ~0u, 0);
    // As init starts it. The kernel refuses in a user namespace.
    setgroups(1, &kLogGroup);
    if (chroot(root().c_str()) == 0 && chdir("/") == 0) {
        last();
        execve(kDaemon, argv.data(), envp.data());
    }
    _exit(errno);
}

}  // namespace rvd::lab

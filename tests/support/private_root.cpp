#include "tests/support/private_root.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <string>

namespace rvd::test {

namespace {

// Nothing of the machine's /sys is needed, so the new root is built over it.
const std::string kRoot = "/sys";

constexpr const char* kOwnDirectories[] = {
        "/data",
        "/data/vendor",
        "/data/vendor/log",
        "/efs",
        "/dev",
        "/overlay",
        "/sys",
        "/sys/power",
        "/sys/devices",
        "/sys/devices/platform",
        "/sys/devices/platform/lnkm",
        "/sys/devices/platform/lnkm/sim",
};
constexpr const char* kNotTaken[] = {".", "..", "data", "efs", "dev", "overlay", "sys"};
constexpr const char* kDevices[] = {"/dev/null", "/dev/zero", "/dev/full", "/dev/urandom"};

void must(bool done, const std::string& what) {
    if (done) return;
    fprintf(stderr,
            "rvd_tests: cannot %s: %s\n"
            "The tests need a mount namespace of their own. Run them as root, or let this user "
            "make\n"
            "user namespaces (sysctl user.max_user_namespaces, "
            "kernel.unprivileged_userns_clone).\n",
            what.c_str(), strerror(errno));
    exit(EXIT_FAILURE);
}

void write_text(const std::string& path, const std::string& text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    must(fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()),
         "write " + path);
    close(fd);
}

void bind(const std::string& from, const std::string& to) {
    must(mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
         "lay " + from + " over " + to);
}

[[noreturn]] void end_like(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

void enter_namespace() {
    if (unshare(CLONE_NEWNS) == 0) return;
    // An ordinary user needs a user namespace too. A process that has threads, such as a
    // sanitizer's, may not change its own; a child that never had any may.
    const std::string user = std::to_string(getuid());
    const std::string group = std::to_string(getgid());
    const long child = syscall(SYS_clone, CLONE_NEWUSER | CLONE_NEWNS | SIGCHLD, 0, 0, 0, 0);
    must(child >= 0, "make a user namespace");
    if (child > 0) end_like(static_cast<pid_t>(child));
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    write_text("/proc/self/setgroups", "deny");
    write_text("/proc/self/uid_map", "0 " + user + " 1");
    write_text("/proc/self/gid_map", "0 " + group + " 1");
}

void take_over(const std::string& name) {
    const std::string from = "/" + name;
    const std::string to = kRoot + from;
    char target[PATH_MAX] = {};
    if (readlink(from.c_str(), target, sizeof(target) - 1) > 0) {
        must(symlink(target, to.c_str()) == 0, "link " + to);
        return;
    }
    struct stat status = {};
    if (stat(from.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return;
    must(mkdir(to.c_str(), 0755) == 0, "make " + to);
    bind(from, to);
}

void take_over_the_rest() {
    DIR* top = opendir("/");
    must(top != nullptr, "list /");
    while (const dirent* entry = readdir(top)) {
        const bool own = std::any_of(std::begin(kNotTaken), std::end(kNotTaken),
                                     [&](const char* n) { return strcmp(n, entry->d_name) == 0; });
        if (!own) take_over(entry->d_name);
    }
    closedir(top);
}

}  // namespace

void enter_private_root() {
    char cwd[PATH_MAX] = "/";
    must(getcwd(cwd, sizeof(cwd)) != nullptr, "find the working directory");
    enter_namespace();
    must(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "keep mounts private");
    must(mount("rvd", kRoot.c_str(), "tmpfs", 0, "mode=0755") == 0, "mount a root");
    for (const char* path : kOwnDirectories) {
        must(mkdir((kRoot + path).c_str(), 0775) == 0, std::string("make ") + path);
    }
    take_over_the_rest();
    for (const char* device : kDevices) {
        write_text(kRoot + device, "");
        bind(device, kRoot + device);
    }
    write_text(kRoot + kCmdline, "");
    bind(kRoot + kCmdline, kRoot + "/proc/cmdline");
    write_text(kRoot + kGroups, "");
    bind(kRoot + kGroups, kRoot + "/etc/group");
    must(chroot(kRoot.c_str()) == 0, "change the root");
    must(chdir(cwd) == 0 || chdir("/") == 0, "go to the working directory");
}

}  // namespace rvd::test

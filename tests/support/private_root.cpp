#include "tests/support/private_root.h"

#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>

#include "tests/support/host.h"

namespace rvd::test {

namespace fs = std::filesystem;

namespace {

// Nothing of the machine's /sys is needed, so the new root is built over it.
const std::string kRoot = "/sys";

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

void lay(const std::string& from, const std::string& over) {
    must(mount(from.c_str(), over.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
         "lay " + from + " over " + over);
}

void enter_namespace() {
    if (unshare(CLONE_NEWNS) == 0) return;
    // An ordinary user needs a user namespace too. A process that has threads, such as a
    // sanitizer's, may not change its own; a child that never had any may.
    const std::string user = "0 " + std::to_string(getuid()) + " 1";
    const std::string group = "0 " + std::to_string(getgid()) + " 1";
    const long child = syscall(SYS_clone, CLONE_NEWUSER | CLONE_NEWNS | SIGCHLD, 0, 0, 0, 0);
    must(child >= 0, "make a user namespace");
    if (child > 0) {
        int status = 0;
        while (waitpid(static_cast<pid_t>(child), &status, 0) < 0 && errno == EINTR) {
        }
        _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", user);
    write_file("/proc/self/gid_map", group);
}

void take_over_the_machine() {
    const std::set<std::string> own = {"/data", "/dev", "/efs", "/overlay", "/sys"};
    for (const auto& entry : fs::directory_iterator("/")) {
        const std::string from = entry.path();
        if (own.count(from) > 0) continue;
        if (entry.is_symlink()) {
            fs::copy_symlink(from, kRoot + from);
        } else if (entry.is_directory()) {
            fs::create_directory(kRoot + from);
            lay(from, kRoot + from);
        }
    }
}

void overlay(const std::string& file, const std::string& over) {
    write_file(kRoot + file, "");
    lay(kRoot + file, kRoot + over);
}

}  // namespace

void enter_private_root() {
    const fs::path cwd = fs::current_path();
    enter_namespace();
    must(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "keep mounts private");
    must(mount("rvd", kRoot.c_str(), "tmpfs", 0, "mode=0755") == 0, "mount a root");
    for (const char* path : {"/data/vendor/log", "/efs", "/dev", "/overlay", "/sys/power",
                             "/sys/devices/platform/lnkm/sim"})
        fs::create_directories(kRoot + path);
    take_over_the_machine();
    for (const std::string device : {"/dev/null", "/dev/urandom"}) {
        write_file(kRoot + device, "");
        lay(device, kRoot + device);
    }
    if (fs::is_directory("/dev/shm")) {  // TMPDIR may be in it
        fs::create_directory(kRoot + "/dev/shm");
        lay("/dev/shm", kRoot + "/dev/shm");
    }
    overlay(kCmdline, "/proc/cmdline");
    overlay(kGroups, "/etc/group");
    must(chroot(kRoot.c_str()) == 0, "change the root");
    must(chdir(cwd.c_str()) == 0 || chdir("/") == 0, "go to the working directory");
}

}  // namespace rvd::test

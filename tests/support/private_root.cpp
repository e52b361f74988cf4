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

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

namespace rvd::test {

namespace fs = std::filesystem;

namespace {

// Nothing of the machine's /sys is needed, so the new root is built over it.
const std::string kRoot = "/sys";

void must(bool done, const std::string& what) {
    if (done) return;
    fprintf(stderr, "cannot %s: %s\n", what.c_str(), strerror(errno));
    exit(EXIT_FAILURE);
}

void bind(const std::string& from, const std::string& over) {
    must(mount(from.c_str(), over.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
         "mount " + from + " over " + over);
}

void enter_namespace() {
    if (unshare(CLONE_NEWNS) == 0) return;
    // An ordinary user needs a user namespace too. A process that has threads, such as a
    // sanitizer's, may not change its own; a child that never had any may.
    const std::string user = "0 " + std::to_string(getuid()) + " 1";
    const std::string group = "0 " + std::to_string(getgid()) + " 1";
    const long child = syscall(SYS_clone, CLONE_NEWUSER | CLONE_NEWNS | SIGCHLD, 0, 0, 0, 0);
    must(child >= 0,
         "make a user namespace: run as root, or allow them (sysctl user.max_user_namespaces, "
         "kernel.unprivileged_userns_clone)");
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

void bind_the_machine() {
    const std::set<std::string> own = {"/data", "/dev", "/efs", "/own", "/sys"};
    for (const auto& entry : fs::directory_iterator("/")) {
        const std::string from = entry.path();
        if (own.count(from) > 0) continue;
        if (entry.is_symlink()) {
            fs::copy_symlink(from, kRoot + from);
        } else if (entry.is_directory()) {
            fs::create_directory(kRoot + from);
            bind(from, kRoot + from);
        }
    }
    // A temporary directory may be in the shared memory.
    for (const std::string device : {"/dev/null", "/dev/urandom", "/dev/shm"}) {
        if (!fs::exists(device)) continue;
        if (fs::is_directory(device)) fs::create_directory(kRoot + device);
        if (!fs::is_directory(device)) write_file(kRoot + device, "");
        bind(device, kRoot + device);
    }
}

}  // namespace

void enter_private_root() {
    const fs::path cwd = fs::current_path();
    enter_namespace();
    must(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "keep mounts private");
    must(mount("rvd", kRoot.c_str(), "tmpfs", 0, "mode=0755") == 0, "mount a root");
    for (const std::string path : {"/data/vendor/log", "/efs", "/dev", "/sys/power",
                                   "/sys/devices/platform/lnkm/sim", kPropertyStore, kScratch})
        fs::create_directories(kRoot + path);
    bind_the_machine();
    for (const auto& [file, over] :
         {std::pair(kCmdline, "/proc/cmdline"), {kGroups, "/etc/group"}}) {
        write_file(kRoot + file, "");
        bind(kRoot + file, kRoot + over);
    }
    must(chroot(kRoot.c_str()) == 0, "change the root");
    must(chdir(cwd.c_str()) == 0 || chdir("/") == 0, "go to the working directory");
    setenv("RVD_PROPERTY_DIR", kPropertyStore, 1);
    setenv("RVD_ANDROID_LOG", kAndroidLog, 1);
}

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary);
    file << content;
    file.close();
    must(file.good(), "write " + path);
}

std::vector<std::string> list(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

void set_property(const std::string& name, const std::string& value) {
    write_file(std::string(kPropertyStore) + "/" + name, value);
}

std::string property(const std::string& name) {
    return read_file(std::string(kPropertyStore) + "/" + name);
}

}  // namespace rvd::test

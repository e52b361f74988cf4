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

#include "lab/phone/private_root.h"

namespace rvd::test {

namespace fs = std::filesystem;

namespace {

// The tests do not need the machine's /sys, so the new root is mounted over it.
const std::string kRoot = "/sys";

void must(bool done, const std::string& what) {
    if (done) return;
    fprintf(stderr, "cannot %s: %s\n", what.c_str(), strerror(errno));
    exit(EXIT_FAILURE);
}

// A process with threads, such as a sanitizer's, cannot enter a user namespace; its child can.
void continue_in_child() {
    const long child = syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0);
    must(child >= 0, "fork");
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        return;
    }
    int status = 0;
    while (waitpid(static_cast<pid_t>(child), &status, 0) < 0 && errno == EINTR) {
    }
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

void share_the_machine() {
    const std::set<std::string> own = {"/data", "/dev", "/efs", "/own", "/sys"};
    for (const auto& entry : fs::directory_iterator("/")) {
        if (own.count(entry.path()) == 0 && (entry.is_symlink() || entry.is_directory()))
            lab::share(entry.path(), kRoot);
    }
    // TMPDIR may be in /dev/shm.
    for (const char* device : {"/dev/null", "/dev/urandom", "/dev/shm"})
        lab::share(device, kRoot);
}

}  // namespace

void enter_private_root() try {
    const fs::path cwd = fs::current_path();
    if (geteuid() != 0) continue_in_child();
    lab::enter_namespaces(CLONE_NEWNS);
    must(mount("rvd", kRoot.c_str(), "tmpfs", 0, "mode=0755") == 0, "mount a root");
    for (const std::string path : {"/data/vendor/log", "/efs", "/dev", "/sys/power",
                                   "/sys/devices/platform/lnkm/sim", kPropertyStore, kScratch})
        fs::create_directories(kRoot + path);
    share_the_machine();
    for (const auto& [file, over] :
         {std::pair(kCmdline, "/proc/cmdline"), {kGroups, "/etc/group"}}) {
        write_file(kRoot + file, "");
        lab::bind_mount(kRoot + file, kRoot + over);
    }
    must(chroot(kRoot.c_str()) == 0, "change the root");
    must(chdir(cwd.c_str()) == 0 || chdir("/") == 0, "go to the working directory");
    setenv("RVD_PROPERTY_DIR", kPropertyStore, 1);
    setenv("RVD_ANDROID_LOG", kAndroidLog, 1);
} catch (const std::exception& error) {
    fprintf(stderr, "%s\n", error.what());
    exit(EXIT_FAILURE);
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

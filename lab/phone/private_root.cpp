#include "lab/phone/private_root.h"

#include <errno.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "lab/errors.h"

namespace fs = std::filesystem;

namespace rvd::lab {

namespace {

// Whether this user namespace maps the user: in a container root may be the only one.
bool has_user(uid_t user) {
    std::ifstream map("/proc/self/uid_map");
    for (uint64_t first = 0, outside = 0, count = 0; map >> first >> outside >> count;) {
        if (user >= first && user - first < count) return true;
    }
    return false;
}

// Maps the user to root of the user namespace that this process has entered.
void map_user(uid_t user, gid_t group) {
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " + std::to_string(user) + " 1";
    std::ofstream("/proc/self/gid_map") << "0 " + std::to_string(group) + " 1";
    if (geteuid() != 0 || getegid() != 0)
        throw_unsupported_errno("cannot become root of a user namespace");
}

}  // namespace

bool enter_namespaces(int kinds) {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    const bool real_root = user == 0 && has_user(kRadio) && unshare(kinds) == 0;
    if (!real_root) {
        if (unshare(CLONE_NEWUSER | kinds) != 0)
            throw Unsupported(
                    std::string("this kernel gives an ordinary user no user namespace (") +
                    strerror(errno) +
                    "). Run rvd-lab as root, or allow it: sysctl user.max_user_namespaces above 0, "
                    "kernel.unprivileged_userns_clone=1, or where AppArmor restricts it, "
                    "kernel.apparmor_restrict_unprivileged_userns=0; in a container, start it "
                    "with the right to unshare and mount.");
        map_user(user, group);
    }
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        throw_unsupported_errno(
                "cannot make mounts private (in a chroot, the root must be a mount point)");
    return real_root;
}

void bind_mount(const std::string& from, const std::string& to, bool read_only) {
    mount_attr attributes{};
    attributes.attr_set = MOUNT_ATTR_RDONLY;
    if (mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
        throw_unsupported_errno("cannot bind " + from + " to " + to);
    if (read_only &&
        mount_setattr(-1, to.c_str(), AT_RECURSIVE, &attributes, sizeof(attributes)) != 0)
        throw_unsupported_errno("cannot make " + to + " read-only");
}

void share(const std::string& path, const std::string& root, bool read_only) {
    const fs::path here = root + path;
    std::error_code ignored;
    fs::create_directories(here.parent_path());
    if (fs::is_symlink(path, ignored)) return fs::copy_symlink(path, here, ignored);
    if (!fs::exists(path, ignored)) return;
    if (fs::is_directory(path)) {
        fs::create_directory(here);
    } else {
        std::ofstream(here.c_str());
    }
    bind_mount(path, here, read_only);
}

}  // namespace rvd::lab

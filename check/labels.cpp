// SELinux: the labels of the files that the daemon opens, and the domain of a running daemon.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "check/phone.h"
#include "log/Log.h"
#include "main/Container.h"
#include "util/ScopedFd.h"

namespace rvd::check {

namespace {

// Exists on every kernel with SELinux, mounted or not.
constexpr char kSelinux[] = "/sys/fs/selinux";

void check_label(Report& report, const char* path, const char* type) {
    char label[256] = "";
    if (getxattr(path, "security.selinux", label, sizeof(label) - 1) < 0 && errno == ENOENT) return;
    const std::string wanted = text("u:object_r:%s:s0", type);
    const std::string what = text("label of %s", path);
    report.add(what.c_str(), label == wanted,
               label == wanted
                       ? label
                       : text("\"%s\" instead of %s; fix file_contexts, then restorecon -v %s",
                              label, wanted.c_str(), path));
}

// The /proc directory of the running daemon, or "".
std::string daemon_process() {
    std::string found;
    DIR* processes = opendir("/proc");
    if (processes == nullptr) return found;
    while (const dirent* process = readdir(processes)) {
        const long number = strtol(process->d_name, nullptr, 10);
        const std::string place = text("/proc/%ld", number);
        if (number > 0 && number != getpid() && first_line((place + "/comm").c_str()) == "rvd")
            found = place;
    }
    closedir(processes);
    return found;
}

}  // namespace

std::string first_line(const char* path) {
    char line[256] = "";
    const ScopedFd file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file.valid() || read(file.get(), line, sizeof(line) - 1) <= 0) return "";
    return std::string(line, strcspn(line, "\n"));
}

void check_labels(Report& report) {
    const std::string mode = first_line("/sys/fs/selinux/enforce");
    if (mode.empty() && access(kSelinux, F_OK) == 0)
        return report.no("SELinux",
                         text("%s/enforce cannot be read; mount -t selinuxfs selinuxfs %s",
                              kSelinux, kSelinux));
    if (mode.empty()) return report.ok("SELinux", "this kernel has none");
    report.ok("SELinux", mode == "0" ? "permissive" : "enforcing");
    const RvdArgs* args = Container::getRvdArgs();
    check_label(report, "/vendor/bin/rvd", "rvd_exec");
    check_label(report, args->boot_node, "modem_boot_device");
    check_label(report, args->dump_node, "modem_dump_device");
    check_label(report, args->partition_path, "modem_firmware_block_device");
    check_label(report, args->nv_data_path, "modem_nv_file");
    check_label(report, Log::get_log_dir(), "rvd_log_data_file");
    const std::string process = daemon_process();
    if (process.empty()) return;
    const std::string domain = first_line((process + "/attr/current").c_str());
    const bool held = domain.compare(0, 10, "u:r:rvd:s0") == 0;
    report.add("domain of the running daemon", held,
               held ? domain
                    : "\"" + domain + "\" instead of u:r:rvd:s0; check the label of its file");
}

}  // namespace rvd::check

#include "check/phone.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <string.h>
#include <sys/klog.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "bootdump/BootDump.h"
#include "check/plan.h"
#include "log/Log.h"
#include "main/Container.h"
#include "util/Property.h"
#include "util/Util.h"

namespace rvd::check {

namespace {

constexpr int kReadAll = 3, kRingSize = 10;  // actions of klogctl()
constexpr uid_t kRadioUser = 1001;

std::string owner_of(const struct stat& status) {
    return text("owner %u:%u, mode %04o", status.st_uid, status.st_gid, status.st_mode & 07777);
}

std::string directory_of(const char* path) {
    return std::string(path, strrchr(path, '/'));
}

// Why a file does not open, and what to do; `missing` is the advice for a missing file.
std::string refusal(const char* path, int error, const char* missing) {
    struct stat status = {};
    if (error == ENOENT || error == ENODEV || error == ENXIO)
        return text("%s: %s; %s", path, strerror(error), missing);
    if (error == EACCES && stat(path, &status) == 0)
        return text("%s: %s, %s; give it to user %u, or see the policy's denials: dmesg | grep avc",
                    path, strerror(error), owner_of(status).c_str(), geteuid());
    return text("%s: %s", path, strerror(error));
}

// Opens a file as the daemon would, and reports it.
ScopedFd open_file(Report& report, const char* what, const char* path, int flags,
                   const char* missing) {
    ScopedFd file(open(path, flags | O_CLOEXEC));
    struct stat status = {};
    if (!file.valid())
        report.no(what, refusal(path, errno, missing));
    else if (fstat(file.get(), &status) == 0)
        report.ok(what, text("%s, %s", path, owner_of(status).c_str()));
    return file;
}

bool root_is_kept() {
    return (Container::getRvdArgs()->options & OPT_ROOT) != 0;
}

// Exposes the controllers' own check.
struct Links : BootDump {
    using BootDump::check_links;
};

void check_links(Report& report, Capture& lines) {
    const int result = Links::check_links(Container::getRvdArgs()->modem_type == MODEM_TYPE_VK880);
    report.add("links", result == 0,
               joined(lines.take()) + (result == 0 ? "" : "; name another with -b or -m"));
}

void check_user(Report& report) {
    constexpr struct {
        int number;
        const char* name;
    } kWanted[] = {{CAP_NET_ADMIN, "NET_ADMIN"}, {CAP_NET_RAW, "NET_RAW"},
                   {CAP_SYS_ADMIN, "SYS_ADMIN"}, {CAP_SYS_BOOT, "SYS_BOOT"},
                   {CAP_SYSLOG, "SYSLOG"},       {CAP_BLOCK_SUSPEND, "BLOCK_SUSPEND"}};
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
    syscall(SYS_capget, &header, sets);
    const unsigned long long effective =
            sets[0].effective | static_cast<unsigned long long>(sets[1].effective) << 32;
    std::string missing;
    for (const auto& wanted : kWanted) {
        if ((effective >> wanted.number & 1) == 0) missing += std::string(" ") + wanted.name;
    }
    const uid_t user = root_is_kept() ? 0 : kRadioUser;
    if (geteuid() != user)
        report.no("user", text("%u instead of %u; start as root, with SETUID", geteuid(), user));
    else if (!missing.empty())
        report.no("user",
                  text("%u lacks%s; start as root, and list them in the service's capabilities",
                       user, missing.c_str()));
    else
        report.ok("user", text("%u, capabilities %016llx", user, effective));
}

void check_group(Report& report) {
    const group* log = getgrnam("log");
    if (log == nullptr) return report.no("groups", "there is no group \"log\" on this system");
    gid_t groups[256];
    const int count = getgroups(static_cast<int>(std::size(groups)), groups);
    const bool member = root_is_kept() || getegid() == log->gr_gid ||
                        std::find(groups, groups + std::max(count, 0), log->gr_gid) !=
                                groups + std::max(count, 0);
    report.add(
            "groups", member,
            text(member ? "log is %u" : "not in \"log\", %u; name it in the service's group line",
                 log->gr_gid));
}

// Returns whether both nodes open.
bool check_driver(Report& report) {
    const RvdArgs* args = Container::getRvdArgs();
    constexpr char kMissing[] =
            "load the driver (dmesg | grep lnkm), or name another node with -B or -D";
    const ScopedFd boot =
            open_file(report, "boot node", args->boot_node, O_RDWR | O_NONBLOCK, kMissing);
    const ScopedFd dump =
            open_file(report, "dump node", args->dump_node, O_RDWR | O_NONBLOCK, kMissing);
    if (boot.valid()) {
        const int state = ioctl(boot.get(), IOCTL_GET_CP_STATUS, nullptr);
        report.add("driver's state", state >= 0,
                   state >= 0 ? text("%d", state)
                              : text("GET_CP_STATUS: %s; another driver?", strerror(errno)));
    }
    if (dump.valid()) {
        char version[sizeof(lnkm_version) + 4] = {};
        const bool told = ioctl(dump.get(), IOCTL_GET_LNKM_VERSION, version) >= 0;
        report.add("driver's version", told,
                   told ? version : text("GET_LNKM_VERSION: %s; another driver?", strerror(errno)));
    }
    return boot.valid() && dump.valid();
}

void check_nv(Report& report, const std::vector<Entry>& table, bool& bootable) {
    const RvdArgs* args = Container::getRvdArgs();
    const auto entry = std::find_if(table.begin(), table.end(),
                                    [](const Entry& e) { return has_name(e, kTocNv); });
    if (entry == table.end()) return;
    const uint64_t wanted = uint64_t{entry->b_off} + entry->size;
    const std::string directory = directory_of(args->nv_data_path);
    const bool makeable = access(directory.c_str(), W_OK | X_OK) == 0;
    const ScopedFd nv = open_file(
            report, "NV file", args->nv_data_path, O_RDONLY,
            makeable ? "mount its partition, or name its directory with -n; on a new phone the "
                       "first boot creates it"
                     : "mount its partition, or name its directory with -n; no boot can create it: "
                       "the directory is missing or not writable");
    if (!nv.valid()) {
        // A boot creates a missing file; one that exists and does not open stops it.
        bootable = bootable && makeable && access(args->nv_data_path, F_OK) != 0;
        return;
    }
    const uint64_t size = size_of(nv.get());
    report.add("NV length", size >= wanted,
               text("%llu bytes, the table says %llu%s", static_cast<unsigned long long>(size),
                    static_cast<unsigned long long>(wanted),
                    size >= wanted ? "" : "; another phone's file, or an interrupted write"));
}

bool check_firmware(Report& report, Capture& lines) {
    const RvdArgs* args = Container::getRvdArgs();
    const ScopedFd partition = open_file(report, "partition", args->partition_path, O_RDONLY,
                                         "name it with -P, a path below /dev/block, or -p");
    if (!partition.valid()) return false;
    const Plan plan = make_plan(partition.get(), CP_BOOT_MODE_NORMAL, lines);
    std::string stages;
    for (const Row& row : plan.rows)
        stages += " " + row.name;
    bool bootable = plan.refusals.empty();
    report.add("table", bootable,
               bootable ? text("%zu stages:%s", plan.rows.size(), stages.c_str())
                        : joined(plan.refusals) +
                                  "; flash it again, or name another partition with -P");
    check_nv(report, read_table(partition.get()), bootable);
    return bootable;
}

void check_kernel_log(Report& report) {
    char buffer[1024];
    const char* word = Util::get_cmdline_str(buffer, sizeof(buffer), "printk.devkmsg=");
    const std::string setting =
            word != nullptr ? strchr(word, '=') + 1 : first_line("/proc/sys/kernel/printk_devkmsg");
    report.add("printk.devkmsg", setting == "on",
               setting == "on" ? setting
                               : "\"" + setting +
                                         "\": the kernel drops most of the daemon's lines; "
                                         "boot with printk.devkmsg=on");
    const int size = klogctl(kRingSize, nullptr, 0);
    char latest[512];
    const bool read = size > 0 && klogctl(kReadAll, latest, sizeof(latest)) >= 0;
    report.add("kernel log", read,
               !read ? text("%s; needs CAP_SYSLOG, and syslog_read in the policy", strerror(errno))
               : size >= Log::kRingSize
                       ? text("%d bytes", size)
                       : text("%d bytes, less than a save holds; log_buf_len=1M keeps more", size));
}

void check_storage(Report& report, Capture& lines) {
    const char* directory = Log::get_log_dir();
    const std::string above = directory_of(directory);
    const char* writable = access(directory, F_OK) == 0 ? directory : above.c_str();
    const bool held = access(writable, W_OK | X_OK) == 0;
    report.add(
            "log directory", held,
            held ? writable
                 : refusal(writable, errno, "create it; on a phone rvd.rc does, at post-fs-data"));
    if (!held) return;
    lines.take();
    const bool room = Log::check_log_directory(writable) == 0 &&
                      Log::check_fs_free_space(Log::get_log_root()) == 0;
    report.add("free space", room, lines.take().back() + (room ? "" : "; make room on /data"));
}

void check_writable(Report& report, const char* what, const char* path, const char* to_do) {
    const bool held = access(path, W_OK) == 0;
    report.add(what, held, held ? path : refusal(path, errno, to_do));
}

void check_properties(Report& report) {
    const Property level("ro.build.version.sdk", "");
    report.add("property store", level.text()[0] != '\0',
               level.text()[0] != '\0' ? text("API level %s", level.text())
                                       : "ro.build.version.sdk cannot be read");
    const bool validated = Property("vendor.rvd.rfs_check_done", "0").is_set();
    report.add("NV validation", validated,
               validated ? "vendor.rvd.rfs_check_done is 1"
                         : "vendor.rvd.rfs_check_done is not 1: every boot waits 5 s for it");
}

}  // namespace

bool check_phone(Report& report, Capture& lines) {
    check_links(report, lines);
    check_user(report);
    check_group(report);
    const bool driver = check_driver(report);
    const bool firmware = check_firmware(report, lines);
    check_kernel_log(report);
    check_storage(report, lines);
    if (Container::getRvdArgs()->modem_type == MODEM_TYPE_TQ720) {
        check_writable(report, "wake lock", kWakeLockPath, "the kernel needs CONFIG_PM_WAKELOCKS");
        check_writable(report, "wake unlock", kWakeUnlockPath,
                       "the kernel needs CONFIG_PM_WAKELOCKS");
        check_writable(report, "SIM-count file", kSimCountPath, "the driver creates it");
    }
    check_properties(report);
    check_labels(report);
    return driver && firmware;
}

}  // namespace rvd::check

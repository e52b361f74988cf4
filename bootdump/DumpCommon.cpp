// The dump half of the base controller: the dump record and its crash files, the copies of memory
// regions, and the kernel panic that ends a dump.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bootdump/BootDump.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/Protocol.h"
#include "util/Io.h"
#include "util/ScopedFd.h"
#include "util/Text.h"
#include "util/Util.h"

namespace rvd {

namespace {

constexpr mode_t kCrashFileMode = 0664;
constexpr size_t kRegionChunk = 4096;

void stamp_minute(char (&stamp)[kNameSize]) {
    const tm now = local_now();
    strftime(stamp, sizeof(stamp), "%Y%m%d-%H%M", &now);
}

// No O_TRUNC: a second dump in the same minute overwrites the files of the first, whose bytes must
// stay until the new content is complete. O_NONBLOCK: a FIFO of that name must not block the dump.
int open_crash_file(const char* path) {
    return open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666);
}

// The path of the crash file of a slot.
void crash_file_path(unsigned slot, const char* base, const char* stamp, TextBuffer path) {
    const char* dir = Log::get_log_dir();
    switch (slot) {
        case DUMP_FD_LOG:
            format_text(path, "%s/%s_log_%s.log", dir, base, stamp);
            break;
        case DUMP_FD_INFO:
            format_text(path, "%s/%s_info_%s_%s.log", dir, base,
                        Container::getRvdArgs()->modem_name, stamp);
            break;
        default:
            format_text(path, "%s/%s_dump_%s.log", dir, base, stamp);
            break;
    }
}

// Receives a region of `size` bytes into its file; `*saved` counts the bytes written. Returns the
// result of the last write, or a negative value.
int save_region(int file, uint32_t size, unsigned long* saved) {
    constexpr char kTag[] = "get_log_dump";
    int result = 0;
    while (*saved < size) {
        char chunk[kRegionChunk];
        int received = Container::getProtocol()->std_ul_rx_frame(chunk, sizeof(chunk));
        // End of file before `size` bytes: the region is incomplete.
        if (received == 0) received = -EIO;
        if (received < 0) {
            Log::dump_info(kTag, "ERR! log_dump std_ul_rx_frame fail (ret %d)\n", received);
            return received;
        }
        result = static_cast<int>(write_all(file, chunk, static_cast<size_t>(received)));
        if (result < 0) {
            Log::dump_error(kTag, "ERR! log_dump write fail\n");
            return result;
        }
        *saved += static_cast<unsigned long>(received);
    }
    return result;
}

void flush_and_close(int32_t* slot, const char* failure) {
    if (*slot < 0) return;
    if (fsync(*slot) < 0) Log::dump_error("std_dump_trigger_kernel_panic", "%s", failure);
    close(*slot);
    *slot = -1;
}

}  // namespace

int BootDump::dump_failed(const char* tag, const char* text, int result) {
    Log::dump_info(tag, "%s", text);
    return result;
}

void BootDump::std_dump_init_args() {
    std_dump_args* dump = getStdDump();
    *dump = {};
    for (int32_t& fd : dump->fd)
        fd = -1;
}

void BootDump::std_dump_close_args() {
    const std_dump_args* dump = getStdDump();
    // After a failed dump the device may restart before the kernel writes the files back.
    if (dump->fd[DUMP_FD_LOG] >= 0) flush_directory(Log::get_log_dir());
    for (const unsigned slot : {DUMP_FD_LOG, DUMP_FD_INFO, DUMP_FD_DUMP}) {
        if (dump->fd[slot] >= 0) fsync(dump->fd[slot]);
    }
    for (const int32_t fd : dump->fd) {
        if (fd >= 0) close(fd);
    }
    std_dump_init_args();
}

bool BootDump::std_dump_prepare_args() {
    constexpr char kTag[] = "std_dump_prepare_args";
    if (Log::check_fs_free_space(Log::get_log_root()) < 0) return false;
    if (Log::create_log_directory(Log::get_log_dir()) < 0) return false;

    std_dump_init_args();
    const RvdArgs* args = Container::getRvdArgs();
    std_dump_args* dump = getStdDump();
    Util::toUpperCase(args->node_prefix, dump->reason);
    const size_t prefix = strlen(dump->reason);
    format_text({dump->reason + prefix, sizeof(dump->reason) - prefix}, ": ");

    dump->fd[DUMP_FD_NODE] = open(args->dump_node, O_RDWR | O_CLOEXEC);
    if (dump->fd[DUMP_FD_NODE] < 0) {
        Log::error(kTag, "ERR! %s open fail\n", args->dump_node);
        return false;
    }
    Log::info(kTag, "%s opened (fd %d)\n", args->dump_node, dump->fd[DUMP_FD_NODE]);

    char base[kNameSize];
    char stamp[kNameSize];
    format_text(base, "cpcrash_%s", args->node_prefix);
    stamp_minute(stamp);
    for (const unsigned slot : {DUMP_FD_LOG, DUMP_FD_INFO, DUMP_FD_DUMP}) {
        char path[kPathSize];
        crash_file_path(slot, base, stamp, path);
        const int fd = open_crash_file(path);
        if (fd < 0) {
            Log::dump_error(kTag, "ERR! %s open fail\n", path);
            return false;
        }
        fchmod(fd, kCrashFileMode);
        dump->fd[slot] = fd;
        if (slot == DUMP_FD_LOG) std_dump_write_versions();
        Log::dump_info(kTag, "%s opened (fd %d)\n", path, fd);
    }
    return true;
}

int BootDump::std_dump_write_versions() {
    constexpr char kTag[] = "std_dump_write_versions";
    // Longer than the record: a version that fills it has no terminator.
    char version[sizeof(lnkm_version) + 4] = {};
    if (ioctl(getStdDump()->fd[DUMP_FD_NODE], IOCTL_GET_LNKM_VERSION, version) < 0) {
        Log::dump_error(kTag, "ERR! IOCTL_GET_LNKM_VERSION fail\n");
        return -EINVAL;
    }
    Log::dump_info(kTag, "LNKM version: %s\n", version);
    Log::dump_info(kTag, "Radio Vault Daemon (RVD) version: %s\n", Log::get_rvd_version());
    return 0;
}

int BootDump::std_dump_receive_cp_dump() {
    return Container::getProtocol()->std_dump_receive_cp_dump();
}

int BootDump::std_dump_trigger_kernel_panic() {
    constexpr char kTag[] = "std_dump_trigger_kernel_panic";
    std_dump_args* dump = getStdDump();
    flush_and_close(&dump->fd[DUMP_FD_DUMP], "ERR! fsync(dump_fd) fail\n");
    flush_and_close(&dump->fd[DUMP_FD_INFO], "ERR! fsync(info_fd) fail\n");
    if (truncate_at_offset(dump->fd[DUMP_FD_LOG]) < 0) {
        Log::dump_error(kTag, "ERR! ftruncate(log_fd) fail\n");
    }
    if (fsync(dump->fd[DUMP_FD_LOG]) < 0) {
        Log::dump_error(kTag, "ERR! fsync(log_fd) fail\n");
        return -1;
    }
    Log::info(kTag, "Go to UPLOAD mode\n");
    const int result = ioctl(dump->fd[DUMP_FD_NODE], IOCTL_TRIGGER_KERNEL_PANIC,
                             Container::getRvdArgs()->crash_reason);
    if (result < 0) {
        Log::dump_error(kTag, "ERR! IOCTL_TRIGGER_KERNEL_PANIC fail\n");
        return result;
    }
    return 0;
}

int BootDump::get_log_dump(const char* name, cp_log_dump_index idx) {
    constexpr char kTag[] = "get_log_dump";
    cp_log_dump region = {};
    copy_text(region.name, name, strlen(name));
    region.idx = idx;
    Log::info(kTag, "name:%s idx:%u\n", region.name, region.idx);
    const int result = ioctl(getStdDump()->fd[DUMP_FD_NODE], IOCTL_GET_LOG_DUMP, &region);
    if (result < 0) {
        Log::dump_error(kTag, "ERR! ioctl fail\n");
        return -EINVAL;
    }
    Log::dump_info(kTag, "size:%u\n", region.size);

    char stamp[kNameSize];
    stamp_minute(stamp);
    char path[kPathSize];
    format_text(path, "%s/cpcrash_%s_dump_%s_%s.log", Log::get_log_dir(), name,
                Container::getRvdArgs()->node_prefix, stamp);
    const ScopedFd file(open_crash_file(path));
    if (!file.valid()) {
        Log::dump_error(kTag, "ERR! %s open fail\n", path);
        return -EINVAL;
    }
    Log::dump_info(kTag, "%s opened (fd %d)\n", path, file.get());

    unsigned long saved = 0;
    const int written = save_region(file.get(), region.size, &saved);
    if (written >= 0 && truncate_at_offset(file.get()) < 0) {
        Log::dump_error(kTag, "ERR! ftruncate(log_dump) fail\n");
    }
    if (fsync(file.get()) < 0) Log::dump_error(kTag, "ERR! fsync(log_dump) fail\n");
    flush_directory(Log::get_log_dir());
    if (written < 0) return written;
    Log::dump_info(kTag, "%s Complete! (%lu bytes)\n", path, saved);
    return saved > 0 ? written : result;
}

}  // namespace rvd

// Logging: messages to the kernel log, the Android log and the crash text log; the log directory;
// copies of the kernel log; and the two debug values that decide how much is saved.
//
// Messages and saves are safe on any thread; everything else is for the main thread. Messages leave
// errno unchanged.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <cstddef>

struct FTW;

namespace rvd {

// Set at start-up and again at every crash, while saving threads may read it.
extern std::atomic<int> debug_level;  // 0 low, 1 mid, 2 high

// Set once, at start-up.
enum cp_debug_option : int {
    CP_DEBUG_NONE = 0,
    CP_DEBUG_HANG = 1,          // park after the first pass
    CP_DEBUG_NORESET = 2,       // boot the modem only once
    CP_DEBUG_NOBOOT = 3,        // never boot the modem
    CP_DEBUG_SILENT_RESET = 4,  // boot the modem again and again
    CP_DEBUG_KERNEL_PANIC = 5,  // every crash or reset forces a kernel panic
};
extern int cp_debug;  // other values only disable the handling of events

// Kernel log descriptor; standard output until kprintf_init has run.
extern int kmsg_fd;

#define RVD_LOG_DIRECTORY "/data/vendor/log/rvd"

class Log {
  public:
    static constexpr char kErrorDir[] = RVD_LOG_DIRECTORY "/err";
    static constexpr char kTestDir[] = RVD_LOG_DIRECTORY "/test";

    static constexpr size_t kMaxRecord = 976;     // bytes; some kernels refuse a longer record
    static constexpr int kMinLogDirMb = 500;      // free space for saved logs
    static constexpr int kMinLogRootMb = 256;     // free space for a dump
    static constexpr int kRingSize = 512 * 1024;  // bytes of the kernel log in one save

    // Which file a save writes; kSaveLast takes precedence.
    enum save_flags : int {
        kSaveLast = 4,     // "<dir>/<name>_last.log"
        kSaveStamped = 1,  // "<dir>/<name>_<time stamp>.log"
    };

    // The argument of _save_logs.
    struct SaveRequest {
        int flags;
        const char* name;
    };

    // --- The sinks -----------------------------------------------------------------------------

    // Opens the kernel log for the life of the process.
    static void kprintf_init();
    // Closes it; no message may follow.
    static void kprintf_deinit();

    // Writes one line to the kernel log and the Android log. `tag` names the operation or step;
    // `format` ends with a newline. A line longer than kMaxRecord is truncated.
    static void info(const char* tag, const char* format, ...)
            __attribute__((format(printf, 2, 3)));
    // As info, with the text of the current errno.
    static void error(const char* tag, const char* format, ...)
            __attribute__((format(printf, 2, 3)));
    // As info and error, also to the crash text log while a dump has it open.
    static void dump_info(const char* tag, const char* format, ...)
            __attribute__((format(printf, 2, 3)));
    static void dump_error(const char* tag, const char* format, ...)
            __attribute__((format(printf, 2, 3)));

    // --- Debug level ---------------------------------------------------------------------------

    // Sets debug_level from the kernel command line, if that has a key for it.
    static void check_debug_level();
    // Sets cp_debug from the property, otherwise from the kernel command line.
    static void check_debug_cp_opt();

    // --- The log directory ---------------------------------------------------------------------

    static char* get_log_root();
    static char* get_log_dir();
    static void update_log_dir();
    static const char* get_rvd_version();

    // Creates the log directory, checks its free space and sets its group, with up to six tries
    // 1 s apart; at debug level 0 only sets the group. Returns 0, -28 (-ENOSPC) if less than 500 MB
    // are free, or another negative value.
    static int create_log_directory(const char* path);
    // Creates the directory if it does not exist. Returns 0, -14 (-EFAULT) if something else has
    // its name, or -1.
    static int create_directory(const char* path);
    // Returns 0, -28 (-ENOSPC) below 500 MB of free space, or -1 if statfs fails.
    static int check_log_directory(const char* path);
    // Returns 0, -28 (-ENOSPC) below 256 MB of free space, or -errno if statfs fails.
    static int check_fs_free_space(const char* path);

    // Removes the tree at `path`, which must begin with the log directory's path. Returns 0 if all
    // of it is removed.
    static int remove_directory(const char* path);
    static int unlink_cb(const char* path, const struct stat* status, int type, FTW* position);
    // Removes the saved logs of a kind (0 dmesg, 1 dumpstate) and a modem from `directory`.
    static void remove_logs(int kind, const char* directory, const char* name);

    // --- Kernel-log saving ---------------------------------------------------------------------

    // Saves the kernel log under `name` on the calling thread.
    static void save_logs(int flags, const char* name);
    // The same on a detached thread with a copy of `name`. Does nothing at debug level 0, and on
    // chips without background saves.
    static void save_logs_thread(int flags, const char* name);
    // Saves with a time stamp under a formatted name: on the calling thread, and on a detached one.
    static void save_now(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void save_in_background(const char* format, ...) __attribute__((format(printf, 1, 2)));
    // Runs one save. `request` is a SaveRequest, which the caller owns. Returns null.
    static void* _save_logs(void* request);
    // Appends the kernel log and a NUL to the file at `path`. Returns -1 if there is no memory, the
    // file cannot be opened or the kernel log cannot be read; otherwise 0, also if the write fails.
    static int dmesg_to_file(const char* path);
};

}  // namespace rvd

// Logging: the two sinks and the crash text log, the log directory, copies of the kernel log, and
// the two debug values that decide how much is saved.
//
// The message operations and the saving routine are safe on any thread; the rest belongs to the
// main thread. No message operation changes errno.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <cstddef>

struct FTW;

namespace rvd {

// Decided at start-up and again at every crash; read by saving threads meanwhile.
extern std::atomic<int> debug_level;  // 0 low, 1 mid, 2 high

// Decided once, at start-up.
enum cp_debug_option : int {
    CP_DEBUG_NONE = 0,
    CP_DEBUG_HANG = 1,          // park after the first pass
    CP_DEBUG_NORESET = 2,       // boot the modem only once
    CP_DEBUG_NOBOOT = 3,        // never boot the modem
    CP_DEBUG_SILENT_RESET = 4,  // boot the modem again and again
    CP_DEBUG_KERNEL_PANIC = 5,  // every crash or reset forces a kernel panic
};
extern int cp_debug;  // any value may come in; others only switch the handling of events off

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
    static constexpr int kRingSize = 512 * 1024;  // bytes of the kernel log that a save holds

    // What a save writes; the first that is set wins.
    enum save_flags : int {
        kSaveLast = 4,     // "<dir>/<name>_last.log"
        kSaveStamped = 1,  // "<dir>/<name>_<time stamp>.log"
    };

    // One running save.
    struct SaveRequest {
        int flags;
        const char* name;
    };

    // --- The sinks -----------------------------------------------------------------------------

    // Opens the kernel log for the life of the process.
    static void kprintf_init();
    // Closes it; no message may follow.
    static void kprintf_deinit();

    // One line to the kernel log and the Android log. `tag` names the operation or step; `format`
    // ends with its newline. A line too long for a kernel record loses the end of its text.
    static void info(const char* tag, const char* format, ...)
            __attribute__((format(printf, 2, 3)));
    // As info, with the text of the current errno.
    static void error(const char* tag, const char* format, ...)
            __attribute__((format(printf, 2, 3)));
    // As the two above, and to the crash text log while a dump has it open.
    static void dump_info(const char* tag, const char* format, ...)
            __attribute__((format(printf, 2, 3)));
    static void dump_error(const char* tag, const char* format, ...)
            __attribute__((format(printf, 2, 3)));

    // --- Debug level ---------------------------------------------------------------------------

    // Sets debug_level from the kernel command line; without a key for it the value stays.
    static void check_debug_level();
    // Sets cp_debug from the property, else from the kernel command line.
    static void check_debug_cp_opt();

    // --- The log directory ---------------------------------------------------------------------

    static char* get_log_root();
    static char* get_log_dir();
    static void update_log_dir();
    static const char* get_rvd_version();

    // Makes `path` usable for saving, with up to six tries 1 s apart; at debug level 0 only its
    // group is set. Returns 0, -28 when less than 500 MB are free, or another negative value.
    static int create_log_directory(const char* path);
    // One try at the directory itself. Returns 0, -14 when something else is in its place, -1.
    static int create_directory(const char* path);
    // Returns 0, -28 below 500 MB, or -1 when the file system does not answer.
    static int check_log_directory(const char* path);
    // Returns 0, -28 below 256 MB, or the negated errno when the file system does not answer.
    static int check_fs_free_space(const char* path);

    // Removes the whole tree at `path`, which must begin with the log directory. 0 when all is
    // gone.
    static int remove_directory(const char* path);
    static int unlink_cb(const char* path, const struct stat* status, int type, FTW* position);
    // Removes the saved logs of a kind (0 dmesg, 1 dumpstate) and a modem's name under `directory`.
    static void remove_logs(int kind, const char* directory, const char* name);

    // --- Kernel-log saving ---------------------------------------------------------------------

    // Saves the kernel log under `name` before it returns.
    static void save_logs(int flags, const char* name);
    // The same on a detached thread with a copy of `name`; nothing at debug level 0 and on chips
    // that do without.
    static void save_logs_thread(int flags, const char* name);
    // Time-stamped saves under a formatted name: before the call returns, and on a detached thread.
    static void save_now(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void save_in_background(const char* format, ...) __attribute__((format(printf, 1, 2)));
    // The saving routine; takes a SaveRequest, which it does not release. Returns null.
    static void* _save_logs(void* request);
    // Appends the kernel ring and a zero byte to the file at `path`. Returns 0 when the copy was
    // attempted, -1 when the file could not be opened or the ring not be read.
    static int dmesg_to_file(const char* path);
};

}  // namespace rvd

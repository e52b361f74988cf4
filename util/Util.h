// Utilities: NV data files, the kernel command line, the daemon's identity. Main thread only.
#pragma once

#include <cstdint>

#include "bootdump/lnkm.h"

namespace rvd {

class Util {
  public:
    // Opens the NV file at `path` read-only, after creating an erased one of `size` bytes if there
    // is none. True: `*fd` is the descriptor, which the caller owns, or -1 if this boot needs none
    // (dump mode, or no path configured). False: `*fd` is unchanged.
    static bool getNvFd(cp_boot_mode mode, const char* path, int size, int* fd);

    // Creates a file of `size` bytes of 0xFF at `path`, which must contain a '/' and not exist. The
    // file appears once it is written, or with what was written before a failure. Returns 0, -12
    // (-ENOMEM) if there is no memory or `size` exceeds INT_MAX, -14 (-EFAULT) on other failures.
    static int create_empty_nv(const char* path, uint64_t size);

    // Switches to the radio user and keeps six capabilities. Must run before any thread is created.
    // Failures are ignored: the daemon continues with the identity it has.
    static void switch_user();

    // Copies `source` in upper case, without its terminator: the caller has zeroed `destination`,
    // which is longer than `source`.
    static void toUpperCase(const char* source, char* destination);

    // The first word of the kernel command line that begins with `key` (such as "key="), or null.
    // The result points into `buf`, a buffer of `size` bytes that the call overwrites.
    static char* get_cmdline_str(char* buf, unsigned int size, const char* key);

    // Runs the test action that the first character of `arg` selects; does nothing for an unknown
    // one or null.
    static int rvd_do_test(const char* arg);
};

}  // namespace rvd

// Small services around the boot: NV data files, the kernel command line, the daemon's identity.
// All operations run on the main thread.
#pragma once

#include <cstdint>

#include "bootdump/lnkm.h"

namespace rvd {

class Util {
  public:
    // Opens the NV file at `path` read-only for a boot, creating an erased one of `size` bytes when
    // there is none. True: `*fd` holds the descriptor, which the caller owns, or -1 when this boot
    // needs none (dump mode, or no path configured). False: nothing is stored.
    static bool getNvFd(cp_boot_mode mode, const char* path, int size, int* fd);

    // Makes a file of `size` bytes of 0xFF at `path`, where none is; `path` names its directory,
    // too. It appears there when it is complete, or of unknown length when it has failed. Returns
    // 0, -12 when there is no memory for it (or `size` is beyond any NV image), -14 on every other
    // failure.
    static int create_empty_nv(const char* path, uint64_t size);

    // Becomes the radio user and keeps the capabilities the daemon needs. Must run before any
    // thread exists. Failures are silent: the daemon keeps the identity it has.
    static void switch_user();

    // Copies `source` with its ASCII letters in upper case, without a terminator: `destination` is
    // zero-filled and longer than `source`.
    static void toUpperCase(const char* source, char* destination);

    // The word of the kernel command line that begins with `key` (such as "key="), or null. The
    // result points into `buf`, a scratch buffer of `size` bytes that every call overwrites.
    static char* get_cmdline_str(char* buf, unsigned int size, const char* key);

    // Runs the test action named by the first character of `arg`; null and unknown ones do nothing.
    static int rvd_do_test(const char* arg);
};

}  // namespace rvd

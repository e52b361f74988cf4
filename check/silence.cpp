// Replaces two functions that the daemon's code calls: this program writes nothing to the radio
// log, which is evidence, and runs no test actions, which write and remove files.
#include <log/log.h>

#include "util/Util.h"

int __android_log_buf_print(int, int, const char*, const char*, ...) {
    return 1;
}

namespace rvd {

int Util::rvd_do_test(const char*) {
    return -1;
}

}  // namespace rvd

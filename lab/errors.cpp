#include "lab/errors.h"

#include <errno.h>
#include <string.h>

namespace rvd::lab {

void fail_errno(const std::string& what) {
    throw Unable(what + ": " + strerror(errno));
}

void forbid_errno(const std::string& what) {
    throw Forbidden(what + ": " + strerror(errno));
}

}  // namespace rvd::lab

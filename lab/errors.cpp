#include "lab/errors.h"

#include <errno.h>
#include <string.h>

namespace rvd::lab {

void throw_errno(const std::string& what) {
    throw Error(what + ": " + strerror(errno));
}

void throw_unsupported_errno(const std::string& what) {
    throw Unsupported(what + ": " + strerror(errno));
}

}  // namespace rvd::lab

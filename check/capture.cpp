#include "check/capture.h"

#include <sys/mman.h>

#include "log/Log.h"

namespace rvd::check {

namespace {

constexpr size_t kPrefix = sizeof("<6>lnkm: rvd: ") - 1;

}  // namespace

Capture::Capture() : sink_before_(kmsg_fd), lines_(memfd_create("lines", MFD_CLOEXEC)) {
    kmsg_fd = lines_.get();
}

Capture::~Capture() {
    kmsg_fd = sink_before_;
}

std::vector<std::string> Capture::take() {
    std::string text;
    char piece[4096];
    for (ssize_t n; (n = pread(lines_.get(), piece, sizeof(piece), taken_)) > 0; taken_ += n)
        text.append(piece, static_cast<size_t>(n));
    std::vector<std::string> lines;
    for (size_t at = 0, end = 0; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
        if (end - at > kPrefix) lines.push_back(text.substr(at + kPrefix, end - at - kPrefix));
    }
    return lines;
}

}  // namespace rvd::check

// A directory, walked without following a link.
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>

#include "report/evidence/evidence.h"

namespace rvd::report {

namespace {

namespace fs = std::filesystem;

constexpr int kDepthLimit = 16;
constexpr size_t kEntryLimit = 2'000'000;

// Why it cannot be read; empty: it can.
std::string trouble_with(const fs::directory_entry& entry) {
    if (entry.is_symlink()) return "a link, which is not followed";
    if (!entry.is_regular_file() && !entry.is_directory()) return "not a file";
    return access(entry.path().c_str(), R_OK) == 0 ? "" : strerror(errno);
}

}  // namespace

std::vector<File> list_directory(const std::string& path) try {
    const size_t prefix = (fs::path(path) / "").native().size();
    std::vector<File> files;
    for (fs::recursive_directory_iterator walk(path), end; walk != end; ++walk) {
        const fs::directory_entry& entry = *walk;
        File file;
        file.trouble = trouble_with(entry);
        if (!file.trouble.empty() || walk.depth() >= kDepthLimit) walk.disable_recursion_pending();
        if (file.trouble.empty() && entry.is_directory()) continue;
        if (files.size() >= kEntryLimit)
            throw Unreadable("more than " + std::to_string(kEntryLimit) + " files");
        file.path = entry.path().native().substr(prefix);
        file.name = parse_name(file.base());
        if (file.trouble.empty()) file.size = entry.file_size();
        files.push_back(std::move(file));
    }
    return files;
} catch (const fs::filesystem_error& error) {
    throw Unreadable(path + ": " + error.code().message());
}

}  // namespace rvd::report

#include "lab/run/summary.h"

#include <fmt/format.h>

#include <filesystem>
#include <set>

namespace fs = std::filesystem;

namespace rvd::lab {

namespace {

constexpr char kLogDirectory[] = "/data/vendor/log/rvd";

// A line for each file in the log directory with its size.
std::set<std::string> saved_files(const fs::path& directory) {
    std::set<std::string> lines;
    std::error_code none;
    for (const auto& entry : fs::recursive_directory_iterator(directory, none)) {
        if (entry.is_regular_file())
            lines.insert(fmt::format("  {:<50} {:>12}\n",
                                     entry.path().lexically_relative(directory).string(),
                                     human_size(entry.file_size())));
    }
    return lines;
}

}  // namespace

void print_summary(const Phone& phone, const Story& story, const Conduct& conduct, bool brief) {
    fmt::print("\nThe run ended with \"{}\" after {:.3f} s of the phone's time.\n", conduct.end,
               seconds(conduct.lasted));
    const auto files = saved_files(phone.path(kLogDirectory));
    if (brief) {
        fmt::print("It saved {} files; without --brief they are listed.\n", files.size());
    } else {
        fmt::print("\n{}\nFiles in {}\n{}", story.transfer_summary(), kLogDirectory,
                   fmt::join(files, ""));
    }
    const std::string& reason = story.crash_sentence;
    if (!reason.empty())
        fmt::print("\nThe reason of the kernel panic\n  {}\n",
                   reason.substr(std::min(reason.find_first_not_of(": "), reason.size())));
    fmt::print("\n");
}

}  // namespace rvd::lab

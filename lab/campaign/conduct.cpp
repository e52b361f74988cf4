#include "lab/campaign/conduct.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

namespace fs = std::filesystem;

namespace rvd::lab {

namespace {

bool begins_with(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

// Complete is complete: more may be appended, what was moved is whole in its new place, and what is
// replaced or taken away without a fault may be so with one.
bool damaged(const std::string& path, const std::string& content, const Conduct& clean,
             const Conduct& faulty) {
    const auto wanted = clean.files.find(path);
    const auto now = faulty.files.find(path);
    if (now == faulty.files.end() && wanted == clean.files.end()) return false;
    if (now != faulty.files.end() && wanted != clean.files.end() && now->second == wanted->second)
        return false;
    return std::none_of(faulty.files.begin(), faulty.files.end(),
                        [&](const auto& file) { return begins_with(file.second, content); });
}

// A crash file has the minute of its crash in its name: another one within it takes its place.
bool saved_again(const std::string& path, const std::vector<std::string>& log) {
    return std::count_if(log.begin(), log.end(), [&](const std::string& line) {
               return matches("*: " + path + " opened (fd *", line);
           }) > 1;
}

}  // namespace

std::vector<std::string> open_paths(const RunStage& stage) {
    std::vector<std::string> paths;
    for (const auto& [fd, path] : stage.descriptors())
        paths.push_back(path);
    std::sort(paths.begin(), paths.end());
    return paths;
}

Files closed_files(const Phone& phone, const std::vector<std::string>& open) {
    Files files;
    for (const char* place : {"/data", "/efs", "/mnt", "/dev/block"}) {
        for (const auto& entry : fs::recursive_directory_iterator(phone.path(place))) {
            const std::string inside = entry.path().string().substr(phone.root().size());
            if (entry.is_regular_file() && !std::binary_search(open.begin(), open.end(), inside))
                files[inside] = read_file(entry.path());
        }
    }
    return files;
}

std::vector<std::string> differences(const Conduct& clean, const Conduct& faulty,
                                     const Files& before, const std::vector<std::string>& log,
                                     Time longer) {
    std::vector<std::string> found;
    // A shutdown that was not heard of leaves the daemon waiting.
    const bool deaf = clean.end == "parked" && faulty.end == "waits";
    if (faulty.end != clean.end && !deaf)
        found.push_back("the run ended with \"" + faulty.end + "\", not \"" + clean.end + "\"");
    if (faulty.lasted > clean.lasted + longer)
        found.push_back(fmt::format("the run lasted {} s, not about {} s", faulty.lasted / kSecond,
                                    clean.lasted / kSecond));
    std::vector<std::string> more;
    std::set_difference(faulty.open.begin(), faulty.open.end(), clean.open.begin(),
                        clean.open.end(), std::back_inserter(more));
    for (const std::string& path : more)
        found.push_back("left open: " + path);
    for (const auto& [path, content] : before) {
        if (damaged(path, content, clean, faulty) && !saved_again(path, log))
            found.push_back(path + " was complete before");
    }
    return found;
}

}  // namespace rvd::lab

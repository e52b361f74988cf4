#include "lab/run/record.h"

#include <algorithm>

namespace rvd::lab {

std::vector<std::string> open_paths(const RunBackend& backend) {
    std::vector<std::string> paths;
    for (const auto& [fd, path] : backend.descriptors())
        paths.push_back(path);
    std::sort(paths.begin(), paths.end());
    return paths;
}

Files closed_files(const Phone& phone, const std::vector<std::string>& open) {
    Files files;
    for (const char* place : {"/data", "/efs", "/mnt", "/dev/block"}) {
        for (const auto& file : phone.files(place)) {
            const std::string inside = phone.inside(file.path());
            if (!std::binary_search(open.begin(), open.end(), inside))
                files[inside] = read_file(file.path());
        }
    }
    return files;
}

}  // namespace rvd::lab

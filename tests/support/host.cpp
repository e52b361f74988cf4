#include "tests/support/host.h"

#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace rvd::test {

namespace fs = std::filesystem;

namespace {

const TempDir& home() {
    static const TempDir directory;
    return directory;
}

}  // namespace

const std::string& property_store() {
    static const std::string path = home() / "properties";
    return path;
}

const std::string& android_log() {
    static const std::string path = home() / "android.log";
    return path;
}

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary);
    file << content;
    file.close();
    if (!file) {
        std::perror(path.c_str());
        std::abort();
    }
}

std::vector<std::string> list(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

TempDir::TempDir() : path_((fs::temp_directory_path() / "rvd-test-XXXXXX").string()) {
    if (mkdtemp(path_.data()) == nullptr) {
        std::perror(path_.c_str());
        std::abort();
    }
}

TempDir::~TempDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

}  // namespace rvd::test

// A directory that goes away, and runs of the virtual phone that leave their files in one.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace rvd::report {

class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        std::string form = std::filesystem::temp_directory_path() / "rvd-report.XXXXXX";
        path_ = mkdtemp(form.data());
    }
    ~TemporaryDirectory() { std::filesystem::remove_all(path_); }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }

    void write(const std::string& name, const std::string& content) const {
        std::filesystem::create_directories((path_ / name).parent_path());
        std::ofstream(path_ / name, std::ios::binary) << content;
    }

  private:
    std::filesystem::path path_;
};

inline std::string read_whole(const std::filesystem::path& path) {
    std::stringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

#ifdef RVD_LAB_BINARY
// Plays a case and returns the directory that the daemon saved in.
inline std::string play(const TemporaryDirectory& root, const std::string& file,
                        const std::string& name) {
    const std::string command = "'" RVD_LAB_BINARY "' run --quiet --root '" + root.path().string() +
                                "' --case '" + name + "' '" RVD_ROOT "/" + file + "' >/dev/null";
    EXPECT_EQ(system(command.c_str()), 0) << command;
    return root.path().string();
}
#endif

}  // namespace rvd::report

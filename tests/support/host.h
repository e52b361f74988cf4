// What every in-process test stands on: a property store and an Android log of this process alone,
// empty when a test begins, and files of its own.
#pragma once

#include <string>
#include <vector>

namespace rvd::test {

// The directory of the property store, and the file of the Android log.
const std::string& property_store();
const std::string& android_log();

// The whole file; "" where it cannot be read.
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content);

// The names in a directory, sorted.
std::vector<std::string> list(const std::string& directory);

// A directory that goes away with everything in it.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

}  // namespace rvd::test

// A directory of evidence, or an archive of one: which files there are, how long they are, and the
// text of those that hold text. Nothing is written, no link is followed, and no dump is read.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "report/evidence/names.h"

namespace rvd::report {

// The evidence as a whole cannot be read; the text says why.
struct Unreadable : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct File {
    std::string path;  // within the evidence
    Name name;
    uint64_t size = 0;
    std::string trouble;                      // why this file cannot be read; empty: it can
    std::shared_ptr<const std::string> kept;  // its text, where it came out of an archive

    // The part of the path behind the last '/'.
    std::string base() const { return path.substr(path.rfind('/') + 1); }
};

// A text is read so far and no further. The daemon's own stay below 1 MiB.
constexpr uint64_t kTextLimit = 32u << 20;

// Two lengths in a dump's announcement have 32 bits: no file of the daemon is longer.
constexpr uint64_t kFileLimit = UINT32_MAX;

class Evidence {
  public:
    // Throws Unreadable when there is nothing at `path` or nothing of the daemon in it.
    explicit Evidence(const std::string& path);

    const std::string& path() const { return path_; }
    // In the order of their paths. Unknown names are listed where they stand beside known ones.
    const std::vector<File>& files() const { return files_; }

    // The first kTextLimit bytes of a file; notes the trouble where it cannot be read.
    std::string text(File& file) const;
    // Its last bytes, up to `limit`.
    std::string tail(File& file, uint64_t limit) const;

    std::vector<File> take_files() { return std::move(files_); }

  private:
    void keep_what_belongs();
    std::string read_at(File& file, uint64_t offset, uint64_t length) const;

    std::string path_;
    std::vector<File> files_;
};

// The two ways in. Both leave unknown names to the caller.
std::vector<File> list_directory(const std::string& path);
std::vector<File> list_archive(const std::string& path);

// Every message about a file of an archive or directory that leaves it.
bool leads_outside(const std::string& path);

}  // namespace rvd::report

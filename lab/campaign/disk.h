// What of the phone's files a power cut leaves. Content is durable once its file is flushed or was
// written synchronously; names are durable once a directory is flushed.
#pragma once

#include <sys/stat.h>

#include <functional>
#include <map>
#include <random>
#include <string>

#include "lab/phone/phone.h"
#include "util/ScopedFd.h"

namespace rvd::lab {

class Disk {
  public:
    // What survives of what was not flushed.
    enum class Unflushed { nothing, all, part };

    // All that is there now is durable.
    explicit Disk(const Phone& phone);

    // The daemon is about to make a call, maybe on one of its descriptors; its calls before have
    // returned.
    void call(const std::string& name, const std::string& path, pid_t daemon, int fd);

    // The power goes before the call that is about to be made.
    void cut(Unflushed survives, uint64_t seed);

    // Whether a path is on the disk.
    static bool holds(const std::string& path);

  private:
    struct File {
        ScopedFd handle;  // keeps the inode and its number when the name is gone
        std::string durable;

        struct stat status() const;
        std::string content() const;  // empty for a directory
    };
    using Names = std::map<std::string, ino_t>;

    Names look();
    File& keep(ScopedFd handle);
    void flush(File& file);
    void flush_all();
    std::string surviving(const File& file, Unflushed survives);
    void rewrite(const Names& names, Unflushed survives);

    const Phone& phone_;
    std::map<ino_t, File> files_;
    Names names_;                   // the durable ones
    std::function<void()> effect_;  // of the last call, on what is durable
    std::mt19937_64 random_;
};

}  // namespace rvd::lab

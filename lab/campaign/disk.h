// The phone's disk with its durable state, which a power cut falls back to. Content is durable once
// its file is flushed or was written synchronously; names are durable once a directory is flushed.
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
    // How much of the unflushed data and names a power cut leaves.
    enum class Survival { none, all, some };

    // Everything on the disk is durable at first.
    explicit Disk(const Phone& phone);

    // The daemon is about to make a call, on `fd` if that is not -1. Its earlier calls have
    // returned.
    void on_call(const std::string& name, const std::string& path, pid_t daemon, int fd);

    // Cuts the power before the call that is about to be made.
    void cut(Survival survival, uint64_t seed);

    // Whether a path is on the disk.
    static bool contains(const std::string& path);

  private:
    struct File {
        ScopedFd fd;  // keeps the inode after its last name is removed
        std::string durable;

        struct stat status() const;
        std::string content() const;  // empty for a directory
    };
    using Names = std::map<std::string, ino_t>;

    Names current_names();
    File& track(ScopedFd fd);
    void flush(File& file);
    void flush_all();
    std::string content_after_cut(const File& file, Survival survival);
    void rewrite(const Names& names, Survival survival);

    const Phone& phone_;
    std::map<ino_t, File> files_;
    Names names_;                           // durable
    std::function<void()> pending_effect_;  // of the last call, on the durable state
    std::mt19937_64 random_;
};

}  // namespace rvd::lab

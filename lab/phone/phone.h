// The phone's file system: a private root directory with everything that the daemon uses. It is on
// tmpfs and vanishes with the run, unless it is built in a directory to be kept.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "lab/modem/firmware.h"
#include "lab/scenario/scenario.h"

namespace rvd::lab {

constexpr char kPropertyDir[] = "/run/rvd/properties";
constexpr char kAndroidLog[] = "/run/rvd/android.log";
constexpr char kOutput[] = "/run/rvd/output";  // standard output and error
constexpr gid_t kLogGroup = 1007;

// Puts a scenario's properties and files into a new root, whose directories exist, and removes what
// the scenario declares missing.
void put_scenario_files(const Scenario& scenario, const std::string& root, uid_t owner);

// A file's content by its path within the phone.
using Files = std::map<std::string, std::string>;

class Phone {
  public:
    // Moves this process to new mount and PID namespaces; processes that it starts later die with
    // it. `directory` must exist: the root is built there, on a tmpfs unless `keep`. Throws
    // Unsupported.
    Phone(const Scenario& scenario, const std::string& directory, bool keep);

    // Builds the root, or reuses the one from before a reboot of the machine.
    void build(const std::string& daemon_binary, bool resume);

    const std::string& root() const { return root_; }
    std::string path(const std::string& inside) const { return root_ + inside; }

    // The path inside the phone; a path outside of the root is returned unchanged.
    std::string inside(const std::string& path) const {
        return starts_with(path, root_) ? path.substr(root_.size()) : path;
    }
    // All regular files beneath a directory of the phone, with their paths on the host.
    std::vector<std::filesystem::directory_entry> files(const std::string& directory) const;

    // The content of the files on the phone's partitions without those in `open`, which is sorted.
    Files closed_files(const std::vector<std::string>& open) const;

    const Partition& partition() const { return partition_; }

    // Bytes free on the scenario's data disk.
    int64_t disk_room() const;

    // Whether the daemon can really change its user and capabilities.
    bool real_root() const { return real_root_; }

    std::string property(const std::string& name) const;
    void set_property(const std::string& name, const std::string& value) const;
    void clear_properties() const;  // as a reboot does; persistent ones stay

    // Executes the daemon in this process; `last` runs just before, inside the phone's root.
    [[noreturn]] void become_daemon(const std::function<void()>& last) const;

  private:
    void make_root() const;
    void make_tree() const;
    void share_host_files() const;
    void bind_daemon(const std::string& binary) const;

    const Scenario& scenario_;
    const std::string root_;
    const bool keep_, real_root_;
    const uid_t owner_;
    const Partition partition_;
};

}  // namespace rvd::lab

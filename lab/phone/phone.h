// The phone's file system: a private root in which the daemon finds everything a phone has, and of
// which nothing is left when the run is over unless a directory was named to keep it in.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "lab/modem/firmware.h"
#include "lab/scenario/scenario.h"

namespace rvd::lab {

constexpr char kPropertyDir[] = "/run/rvd/properties";
constexpr char kAndroidLog[] = "/run/rvd/android.log";
constexpr char kOutput[] = "/run/rvd/output";  // standard output and error
constexpr gid_t kLogGroup = 1007;

// What a scenario puts into a phone's new root, in which its directories exist: properties and
// files; and what it takes away.
void put_scenario_files(const Scenario& scenario, const std::string& root, uid_t owner);

class Phone {
  public:
    // `directory` exists and is where the root is built; with `keep` its files stay. This process
    // gets mounts and process numbers of its own; those that it starts from now on die with it.
    // Throws Unsupported.
    Phone(const Scenario& scenario, const std::string& directory, bool keep);

    // Builds the root, or resumes the one from before the machine went down.
    void build(const std::string& daemon_binary, bool resume);

    const std::string& root() const { return root_; }
    std::string path(const std::string& inside) const { return root_ + inside; }

    // The other way round; a path outside of the root stays.
    std::string inside(const std::string& path) const {
        return path.compare(0, root_.size(), root_) == 0 ? path.substr(root_.size()) : path;
    }
    const Partition& partition() const { return partition_; }

    // Bytes left on the scenario's data disk.
    int64_t disk_room() const;

    // Whether the daemon's user and capabilities can change for real.
    bool real_root() const { return real_root_; }

    std::string property(const std::string& name) const;
    void set_property(const std::string& name, const std::string& value) const;
    void clear_properties() const;  // as a reboot does: what persists, stays

    // Turns this process into the daemon, once `last` has run in the phone.
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

// The phone's file system: a private root in which the daemon finds everything a phone has, and of
// which nothing is left when the run is over unless a directory was named to keep it in.
#pragma once

#include <sys/types.h>

#include <string>

#include "lab/modem/firmware.h"
#include "lab/phone/tree.h"
#include "lab/scenario/scenario.h"

namespace rvd::lab {

constexpr char kPropertyDir[] = "/run/rvd/properties";
constexpr char kAndroidLog[] = "/run/rvd/android.log";
constexpr char kOutput[] = "/run/rvd/output";  // standard output and error
constexpr char kDaemonPath[] = "/vendor/bin/rvd";
constexpr uid_t kRadio = 1001;
constexpr gid_t kLogGroup = 1007;

// Gives this process mounts and process numbers of its own, as root or as an ordinary user in a
// user namespace. Processes it starts from now on die with it. Throws Unable with what is missing.
void enter_namespaces();

// What a scenario puts into the phone's directories, which stand: properties, files, and what is
// not to be there.
void put_scenario_files(const Scenario& scenario, const Tree& tree, uid_t owner);

class Phone {
  public:
    // `directory` exists and is where the root is built; with `keep` its files stay.
    Phone(const Scenario& scenario, const std::string& directory, bool keep);

    // Builds the root. Call after enter_namespaces().
    void build(const std::string& daemon_binary);

    // The root that was built before the machine went down. Call instead of build().
    void resume(const std::string& daemon_binary);

    const std::string& root() const { return tree_.root(); }
    std::string path(const std::string& inside) const { return tree_.path(inside); }
    const Partition& partition() const { return partition_; }

    std::string property(const std::string& name) const;
    void set_property(const std::string& name, const std::string& value) const;
    void clear_properties() const;  // as a reboot does: what persists, stays

    // Whether the daemon's user and capabilities can change for real.
    static bool real_root();

  private:
    void bind(const std::string& from, const std::string& to, bool read_only) const;
    void mount_system() const;
    void put_cmdline() const;
    void put_daemon(const std::string& binary) const;
    void make_tree() const;

    const Scenario& scenario_;
    Tree tree_;
    bool keep_;
    Partition partition_;
};

}  // namespace rvd::lab

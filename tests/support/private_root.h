// A private root for the tests, in which the daemon's fixed paths hold what a test writes there.
#pragma once

#include <string>
#include <vector>

namespace rvd::test {

constexpr char kCmdline[] = "/own/cmdline";  // mounted over /proc/cmdline
constexpr char kGroups[] = "/own/group";     // mounted over /etc/group
constexpr char kPropertyStore[] = "/own/properties";
constexpr char kAndroidLog[] = "/own/android.log";
constexpr char kScratch[] = "/own/scratch";  // emptied before each test

// Enters a mount namespace whose root holds the daemon's directories and /own, all empty, and the
// rest of the machine; points the platform layer to its store and log there. If the kernel refuses,
// exits with a message.
void enter_private_root();

// The whole file, or "" if it cannot be read.
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content);

// The names in a directory, sorted.
std::vector<std::string> list(const std::string& directory);

void set_property(const std::string& name, const std::string& value);
std::string property(const std::string& name);

}  // namespace rvd::test

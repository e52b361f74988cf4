// A file system of the tests' own, so that the daemon's fixed paths can be what a test says.
#pragma once

namespace rvd::test {

// Where the private root keeps what it lays over the machine's own files.
constexpr char kCmdline[] = "/overlay/cmdline";  // seen as /proc/cmdline
constexpr char kGroups[] = "/overlay/group";     // seen as /etc/group

// Enters a mount namespace whose root holds the daemon's directories, empty, and everything else of
// this machine. Ends the process with a message where the kernel refuses.
void enter_private_root();

}  // namespace rvd::test

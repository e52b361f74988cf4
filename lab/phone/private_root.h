// Helpers for a private root directory: namespaces, and the host's files mounted in it. The virtual
// phone and the in-process tests use them.
#pragma once

#include <sys/types.h>

#include <string>

namespace rvd::lab {

constexpr uid_t kRadio = 1001;  // the user that the daemon changes to

// Moves this process to new namespaces (CLONE_ flags) with private mounts. Returns true if it is
// the machine's root, false if it has become root of a new user namespace. Throws Unsupported with
// the setting to change.
bool enter_namespaces(int kinds);

void bind_mount(const std::string& from, const std::string& to, bool read_only = false);

// Mounts a file or directory of the host, or copies a symbolic link, at the same path beneath a
// root. A missing one is no error.
void share(const std::string& path, const std::string& root, bool read_only = false);

}  // namespace rvd::lab

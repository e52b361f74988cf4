// A root directory that is a process's own: namespaces, and the machine's files shown in it. The
// virtual phone and the in-process tests build theirs with it.
#pragma once

#include <sys/types.h>

#include <string>

namespace rvd::lab {

constexpr uid_t kRadio = 1001;  // that the daemon becomes

// Gives this process namespaces of its own, named by CLONE_ flags, and keeps its mounts private.
// It stays the machine's root, or becomes root of a user namespace and returns false. Throws
// Unsupported with what to change on the machine.
bool enter_namespaces(int kinds);

// Mounts a file or directory at another place.
void bind_mount(const std::string& from, const std::string& to, bool read_only = false);

// Shows a file, directory or link of the machine beneath a root, at the same path; none is no
// error.
void share(const std::string& path, const std::string& root, bool read_only = false);

}  // namespace rvd::lab

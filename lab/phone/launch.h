// Starts the daemon's binary inside the phone, under a filter that hands chosen system calls to the
// lab, and so that its clock is the one those calls show.
#pragma once

#include <seccomp.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "lab/base.h"

namespace rvd::lab {

// A system call that is handed to the lab, whole or where one argument fits.
struct Rule {
    int call;
    std::vector<scmp_arg_cmp> arguments;
};

struct Process {
    pid_t pid = -1;
    int pidfd = -1;
    int listener = -1;  // the filter's notifications
};

// Turns this process into the daemon, in the phone at `root`, once `last` has run there.
[[noreturn]] void become_daemon(const std::string& root, const std::vector<std::string>& arguments,
                                const std::function<void()>& last);

// With `virtual_time` no clock of the daemon's can bypass the filter. Throws Unable.
Process launch(const std::string& root, const std::vector<std::string>& arguments,
               const std::vector<Rule>& rules, bool virtual_time);

}  // namespace rvd::lab

// The system calls that the lab can be asked to take over, and what is known of each: what a
// scenario calls it, which argument is a path or a descriptor, and when it is taken.
#pragma once

#include <linux/filter.h>

#include <string>
#include <vector>

#include "lab/scenario/scenario.h"

namespace rvd::lab {

enum class Watch {
    always,        // the phone answers it, or looks at it
    virtual_time,  // only while the clock is the lab's
    faults,        // only where the scenario has a fault for it
};

enum class Service {
    look,  // nothing but faults and the check of paths
    open,
    ioctl,
    syslog,
    statfs,
    identity,
    sync,
    poll,
    sleep,
    clock,
    clone,
    thread_start,
    thread_end,
    write,
    other,  // nothing at all
};

struct CallShape {
    const char* name;    // the kernel's
    const char* family;  // the scenario's
    Watch watch;
    Service service;
    int path;  // argument that is a path, or -1
    int fd;    // argument that is a descriptor, or -1
    int number = -1;
};

// The calls that this machine's kernel has and this scenario needs, by number; or all there are.
std::vector<CallShape> calls_to_watch(const Scenario& scenario, bool virtual_time, bool all);

// What a fault can be made for, by the scenario's names.
std::vector<std::string> fault_calls();

// The program that hands these calls over and leaves all others to the kernel. Throws Unable.
using Filter = std::vector<sock_filter>;
Filter filter_for(const std::vector<CallShape>& shapes);

}  // namespace rvd::lab

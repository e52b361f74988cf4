// The system calls that the lab can take over, and how it treats each.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "lab/scenario/scenario.h"

namespace rvd::lab {

class Calls;
struct Call;

enum class Intercept {
    always,        // the phone answers it, or looks at it
    virtual_time,  // only while the clock is the lab's
    faults,        // only where the scenario has a fault for it
};

struct SyscallInfo {
    std::string name;    // the kernel's
    std::string family;  // the scenario's
    Intercept when;
    void (Calls::*handler)(const Call&);
    int path = -1, fd = -1;  // numbers of the arguments that are a path and a descriptor
    int number = -1;
};

// The calls that this machine's kernel has and this scenario needs, by number; or all there are.
std::vector<SyscallInfo> intercepted_calls(const Scenario& scenario, bool virtual_time, bool all);

// What a fault can be made for, by the scenario's names.
std::vector<std::string> fault_calls();

// The filter that hands these calls over and leaves all others to the kernel. Throws Error.
using Filter = std::unique_ptr<void, void (*)(void*)>;
Filter filter_for(const std::vector<SyscallInfo>& intercepted);

}  // namespace rvd::lab

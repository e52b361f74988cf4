// The system calls that the lab can intercept, and the handler of each.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "lab/scenario/scenario.h"

namespace rvd::lab {

class Calls;
struct Call;

enum class Intercept {
    always,
    virtual_time,  // unless the run uses the real clock
    faults,        // if the scenario has a fault for the family
};

struct SyscallInfo {
    std::string name;    // the kernel's
    std::string family;  // the name that scenarios use
    Intercept when;
    void (Calls::*handler)(const Call&);
    int path = -1, fd = -1;  // indices of the arguments with a path and a descriptor
    int number = -1;
};

// The calls to intercept for this scenario, or all that this kernel has. Calls that the kernel does
// not have are left out.
std::vector<SyscallInfo> intercepted_calls(const Scenario& scenario, bool virtual_time, bool all);

// The families of calls that a scenario can let fail.
std::vector<std::string> fault_calls();

// A seccomp filter that notifies the lab of these calls and allows all others. Throws Error.
using Filter = std::unique_ptr<void, void (*)(void*)>;
Filter filter_for(const std::vector<SyscallInfo>& intercepted);

}  // namespace rvd::lab

#include "lab/gate/table.h"

#include <fmt/format.h>
#include <sched.h>
#include <seccomp.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>

#include <algorithm>
#include <set>

#include "bootdump/lnkm.h"
#include "lab/gate/calls.h"

namespace rvd::lab {

namespace {

const CallShape kShapes[] = {
        {"open", "open", Watch::always, &Calls::serve_open, 0},
        {"openat", "open", Watch::always, &Calls::serve_open, 1},
        {"ioctl", "ioctl", Watch::always, &Calls::serve_ioctl, -1, 0},
        {"syslog", "syslog", Watch::always, &Calls::serve_syslog},
        {"statfs", "statfs", Watch::always, &Calls::serve_statfs, 0},
        {"fstatfs", "statfs", Watch::always, &Calls::serve_statfs, -1, 0},
        {"sync", "sync", Watch::always, &Calls::serve_sync},
        {"prctl", "prctl", Watch::always, &Calls::serve_identity},
        {"setuid", "setuid", Watch::always, &Calls::serve_identity},
        {"capset", "capset", Watch::always, &Calls::serve_identity},
        {"chown", "chown", Watch::always, &Calls::serve_identity, 0},
        {"fchownat", "chown", Watch::always, &Calls::serve_identity, 1},
        {"mkdir", "mkdir", Watch::always, &Calls::look, 0},
        {"mkdirat", "mkdir", Watch::always, &Calls::look, 1},
        {"unlink", "unlink", Watch::always, &Calls::look, 0},
        {"unlinkat", "unlink", Watch::always, &Calls::look, 1},
        {"rmdir", "rmdir", Watch::always, &Calls::look, 0},
        {"rename", "rename", Watch::always, &Calls::look, 0},
        {"renameat", "rename", Watch::always, &Calls::look, 1},
        {"renameat2", "rename", Watch::always, &Calls::look, 1},
        {"linkat", "link", Watch::always, &Calls::look, 3},

        {"poll", "poll", Watch::virtual_time, &Calls::serve_poll},
        {"ppoll", "poll", Watch::virtual_time, &Calls::serve_poll},
        {"pause", "pause", Watch::virtual_time, &Calls::serve_sleep},
        {"nanosleep", "sleep", Watch::virtual_time, &Calls::serve_sleep},
        {"clock_nanosleep", "sleep", Watch::virtual_time, &Calls::serve_sleep},
        {"clock_gettime", "clock", Watch::virtual_time, &Calls::serve_clock},
        {"gettimeofday", "clock", Watch::virtual_time, &Calls::serve_clock},
        {"time", "clock", Watch::virtual_time, &Calls::serve_clock},
        {"clone", "clone", Watch::virtual_time, &Calls::serve_clone},
        {"clone3", "clone", Watch::virtual_time, &Calls::serve_clone},
        {"set_robust_list", "thread", Watch::virtual_time, &Calls::pass},
        {"rseq", "thread", Watch::virtual_time, &Calls::pass},
        {"exit", "exit", Watch::virtual_time, &Calls::end_thread},

        {"read", "read", Watch::faults, &Calls::look, -1, 0},
        {"write", "write", Watch::faults, &Calls::serve_write, -1, 0},
        {"writev", "write", Watch::faults, &Calls::serve_write, -1, 0},
        {"lseek", "lseek", Watch::faults, &Calls::look, -1, 0},
        {"fsync", "fsync", Watch::faults, &Calls::look, -1, 0},
        {"ftruncate", "ftruncate", Watch::faults, &Calls::look, -1, 0},
        {"fstat", "stat", Watch::faults, &Calls::look, -1, 0},
        {"stat", "stat", Watch::faults, &Calls::look, 0},
        {"lstat", "stat", Watch::faults, &Calls::look, 0},
        {"newfstatat", "stat", Watch::faults, &Calls::look, 1, 0},
        {"statx", "stat", Watch::faults, &Calls::look, 1, 0},
        {"chmod", "chmod", Watch::faults, &Calls::look, 0},
        {"fchmod", "chmod", Watch::faults, &Calls::look, -1, 0},
        {"fchmodat", "chmod", Watch::faults, &Calls::look, 1},
        {"getdents64", "readdir", Watch::faults, &Calls::look, -1, 0},
        {"mmap", "mmap", Watch::faults, &Calls::look, -1, 4},
        {"brk", "mmap", Watch::faults, &Calls::look},
};

bool has_fault(const Scenario& scenario, const CallShape& shape) {
    return std::any_of(scenario.faults.begin(), scenario.faults.end(),
                       [&](const Fault& fault) { return fault.call == shape.family; });
}

// Adds all other calls of this machine's kernel, except those that start the daemon.
void add_others(std::vector<CallShape>& shapes) {
    constexpr int kBeyondCalls = 1024;
    std::set<std::string> known = {"kill", "close", "execve"};
    for (const CallShape& shape : shapes)
        known.insert(shape.name);
    for (int number = 0; number < kBeyondCalls; number++) {
        const std::unique_ptr<char, void (*)(void*)> name(
                seccomp_syscall_resolve_num_arch(SCMP_ARCH_NATIVE, number), free);
        if (name && known.count(name.get()) == 0)
            shapes.push_back({name.get(), name.get(), Watch::always, &Calls::pass, -1, -1, number});
    }
}

}  // namespace

std::vector<CallShape> calls_to_watch(const Scenario& scenario, bool virtual_time, bool all) {
    std::vector<CallShape> shapes;
    for (CallShape shape : kShapes) {
        const bool disk = shape.serve == &Calls::serve_write && scenario.disk;
        const bool wanted = shape.watch == Watch::always ||
                            (shape.watch == Watch::virtual_time && virtual_time) || disk ||
                            has_fault(scenario, shape) || all;
        shape.number = seccomp_syscall_resolve_name(shape.name.c_str());
        if (wanted && shape.number >= 0) shapes.push_back(shape);
    }
    if (all) add_others(shapes);
    return shapes;
}

std::vector<std::string> fault_calls() {
    std::vector<std::string> names;
    for (const CallShape& shape : kShapes)
        names.emplace_back(shape.family);
    return names;
}

Filter filter_for(const std::vector<CallShape>& shapes) {
    Filter filter(seccomp_init(SCMP_ACT_ALLOW), seccomp_release);
    if (!filter) throw Unable("cannot make a system-call filter");
    for (const CallShape& shape : shapes) {
        std::vector<scmp_arg_cmp> only;
        if (shape.name == "ioctl") only = {SCMP_A1(SCMP_CMP_MASKED_EQ, 0xFF00, kLnkmType << 8)};
        if (shape.name == "prctl") only = {SCMP_A0(SCMP_CMP_EQ, PR_SET_KEEPCAPS, 0)};
        if (shape.name == "clone") only = {SCMP_A0(SCMP_CMP_MASKED_EQ, CLONE_THREAD, CLONE_THREAD)};
        const int result = seccomp_rule_add_array(filter.get(), SCMP_ACT_NOTIFY, shape.number,
                                                  static_cast<unsigned>(only.size()), only.data());
        if (result != 0)
            throw Forbidden(fmt::format("this kernel cannot hand over system call {}: {}",
                                        shape.name, strerror(-result)));
    }
    return filter;
}

}  // namespace rvd::lab

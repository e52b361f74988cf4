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

const SyscallInfo kSyscalls[] = {
        {"open", "open", Intercept::always, &Calls::handle_open, 0},
        {"openat", "open", Intercept::always, &Calls::handle_open, 1},
        {"ioctl", "ioctl", Intercept::always, &Calls::handle_ioctl, -1, 0},
        {"syslog", "syslog", Intercept::always, &Calls::handle_syslog},
        {"statfs", "statfs", Intercept::always, &Calls::handle_statfs, 0},
        {"fstatfs", "statfs", Intercept::always, &Calls::handle_statfs, -1, 0},
        {"sync", "sync", Intercept::always, &Calls::handle_sync},
        {"prctl", "prctl", Intercept::always, &Calls::handle_identity},
        {"setuid", "setuid", Intercept::always, &Calls::handle_identity},
        {"capset", "capset", Intercept::always, &Calls::handle_identity},
        {"chown", "chown", Intercept::always, &Calls::handle_identity, 0},
        {"fchownat", "chown", Intercept::always, &Calls::handle_identity, 1},
        {"mkdir", "mkdir", Intercept::always, &Calls::check_and_continue, 0},
        {"mkdirat", "mkdir", Intercept::always, &Calls::check_and_continue, 1},
        {"unlink", "unlink", Intercept::always, &Calls::check_and_continue, 0},
        {"unlinkat", "unlink", Intercept::always, &Calls::check_and_continue, 1},
        {"rmdir", "rmdir", Intercept::always, &Calls::check_and_continue, 0},
        {"rename", "rename", Intercept::always, &Calls::check_and_continue, 0},
        {"renameat", "rename", Intercept::always, &Calls::check_and_continue, 1},
        {"renameat2", "rename", Intercept::always, &Calls::check_and_continue, 1},
        {"linkat", "link", Intercept::always, &Calls::check_and_continue, 3},

        {"poll", "poll", Intercept::virtual_time, &Calls::handle_poll},
        {"ppoll", "poll", Intercept::virtual_time, &Calls::handle_poll},
        {"pause", "pause", Intercept::virtual_time, &Calls::handle_sleep},
        {"nanosleep", "sleep", Intercept::virtual_time, &Calls::handle_sleep},
        {"clock_nanosleep", "sleep", Intercept::virtual_time, &Calls::handle_sleep},
        {"clock_gettime", "clock", Intercept::virtual_time, &Calls::handle_clock},
        {"gettimeofday", "clock", Intercept::virtual_time, &Calls::handle_clock},
        {"time", "clock", Intercept::virtual_time, &Calls::handle_clock},
        {"clone", "clone", Intercept::virtual_time, &Calls::handle_clone},
        {"clone3", "clone", Intercept::virtual_time, &Calls::handle_clone},
        {"set_robust_list", "thread", Intercept::virtual_time, &Calls::pass_through},
        {"rseq", "thread", Intercept::virtual_time, &Calls::pass_through},
        {"exit", "exit", Intercept::virtual_time, &Calls::end_thread},

        {"read", "read", Intercept::faults, &Calls::check_and_continue, -1, 0},
        {"write", "write", Intercept::faults, &Calls::handle_write, -1, 0},
        {"writev", "write", Intercept::faults, &Calls::handle_write, -1, 0},
        {"lseek", "lseek", Intercept::faults, &Calls::check_and_continue, -1, 0},
        {"fsync", "fsync", Intercept::faults, &Calls::check_and_continue, -1, 0},
        {"ftruncate", "ftruncate", Intercept::faults, &Calls::check_and_continue, -1, 0},
        {"fstat", "stat", Intercept::faults, &Calls::check_and_continue, -1, 0},
        {"stat", "stat", Intercept::faults, &Calls::check_and_continue, 0},
        {"lstat", "stat", Intercept::faults, &Calls::check_and_continue, 0},
        {"newfstatat", "stat", Intercept::faults, &Calls::check_and_continue, 1, 0},
        {"statx", "stat", Intercept::faults, &Calls::check_and_continue, 1, 0},
        {"chmod", "chmod", Intercept::faults, &Calls::check_and_continue, 0},
        {"fchmod", "chmod", Intercept::faults, &Calls::check_and_continue, -1, 0},
        {"fchmodat", "chmod", Intercept::faults, &Calls::check_and_continue, 1},
        {"getdents64", "readdir", Intercept::faults, &Calls::check_and_continue, -1, 0},
        {"mmap", "mmap", Intercept::faults, &Calls::check_and_continue, -1, 4},
        {"brk", "mmap", Intercept::faults, &Calls::check_and_continue},
};

bool has_fault(const Scenario& scenario, const SyscallInfo& info) {
    return std::any_of(scenario.faults.begin(), scenario.faults.end(),
                       [&](const Fault& fault) { return fault.call == info.family; });
}

// Adds all other calls of this kernel, except those that start the daemon.
void add_others(std::vector<SyscallInfo>& intercepted) {
    constexpr int kBeyondCalls = 1024;
    std::set<std::string> known = {"kill", "close", "execve"};
    for (const SyscallInfo& info : intercepted)
        known.insert(info.name);
    for (int number = 0; number < kBeyondCalls; number++) {
        const std::unique_ptr<char, void (*)(void*)> name(
                seccomp_syscall_resolve_num_arch(SCMP_ARCH_NATIVE, number), free);
        if (name && known.count(name.get()) == 0)
            intercepted.push_back({name.get(), name.get(), Intercept::always, &Calls::pass_through,
                                   -1, -1, number});
    }
}

}  // namespace

std::vector<SyscallInfo> intercepted_calls(const Scenario& scenario, bool virtual_time, bool all) {
    std::vector<SyscallInfo> intercepted;
    for (SyscallInfo info : kSyscalls) {
        const bool disk = info.handler == &Calls::handle_write && scenario.disk;
        const bool wanted = info.when == Intercept::always ||
                            (info.when == Intercept::virtual_time && virtual_time) || disk ||
                            has_fault(scenario, info) || all;
        info.number = seccomp_syscall_resolve_name(info.name.c_str());
        if (wanted && info.number >= 0) intercepted.push_back(info);
    }
    if (all) add_others(intercepted);
    return intercepted;
}

std::vector<std::string> fault_calls() {
    std::vector<std::string> names;
    for (const SyscallInfo& info : kSyscalls)
        names.emplace_back(info.family);
    return names;
}

Filter filter_for(const std::vector<SyscallInfo>& intercepted) {
    Filter filter(seccomp_init(SCMP_ACT_ALLOW), seccomp_release);
    if (!filter) throw Error("cannot make a system-call filter");
    for (const SyscallInfo& info : intercepted) {
        std::vector<scmp_arg_cmp> only;
        if (info.name == "ioctl") only = {SCMP_A1(SCMP_CMP_MASKED_EQ, 0xFF00, kLnkmType << 8)};
        if (info.name == "prctl") only = {SCMP_A0(SCMP_CMP_EQ, PR_SET_KEEPCAPS, 0)};
        if (info.name == "clone") only = {SCMP_A0(SCMP_CMP_MASKED_EQ, CLONE_THREAD, CLONE_THREAD)};
        const int result = seccomp_rule_add_array(filter.get(), SCMP_ACT_NOTIFY, info.number,
                                                  static_cast<unsigned>(only.size()), only.data());
        if (result != 0)
            throw Unsupported(fmt::format("this kernel cannot intercept system call {}: {}",
                                          info.name, strerror(-result)));
    }
    return filter;
}

}  // namespace rvd::lab

#include "lab/gate/table.h"

#include <errno.h>
#include <fmt/format.h>
#include <sched.h>
#include <seccomp.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <list>

#include "bootdump/lnkm.h"

namespace rvd::lab {

namespace {

constexpr CallShape kShapes[] = {
        {"open", "open", Watch::always, Service::open, 0, -1},
        {"openat", "open", Watch::always, Service::open, 1, -1},
        {"ioctl", "ioctl", Watch::always, Service::ioctl, -1, 0},
        {"syslog", "syslog", Watch::always, Service::syslog, -1, -1},
        {"statfs", "statfs", Watch::always, Service::statfs, 0, -1},
        {"fstatfs", "statfs", Watch::always, Service::statfs, -1, 0},
        {"sync", "sync", Watch::always, Service::sync, -1, -1},
        {"prctl", "prctl", Watch::always, Service::identity, -1, -1},
        {"setuid", "setuid", Watch::always, Service::identity, -1, -1},
        {"capset", "capset", Watch::always, Service::identity, -1, -1},
        {"chown", "chown", Watch::always, Service::identity, 0, -1},
        {"fchownat", "chown", Watch::always, Service::identity, 1, -1},
        {"mkdir", "mkdir", Watch::always, Service::look, 0, -1},
        {"mkdirat", "mkdir", Watch::always, Service::look, 1, -1},
        {"unlink", "unlink", Watch::always, Service::look, 0, -1},
        {"unlinkat", "unlink", Watch::always, Service::look, 1, -1},
        {"rmdir", "rmdir", Watch::always, Service::look, 0, -1},
        {"rename", "rename", Watch::always, Service::look, 0, -1},
        {"renameat", "rename", Watch::always, Service::look, 1, -1},
        {"renameat2", "rename", Watch::always, Service::look, 1, -1},

        {"poll", "poll", Watch::virtual_time, Service::poll, -1, -1},
        {"ppoll", "poll", Watch::virtual_time, Service::poll, -1, -1},
        {"pause", "pause", Watch::virtual_time, Service::sleep, -1, -1},
        {"nanosleep", "sleep", Watch::virtual_time, Service::sleep, -1, -1},
        {"clock_nanosleep", "sleep", Watch::virtual_time, Service::sleep, -1, -1},
        {"clock_gettime", "clock", Watch::virtual_time, Service::clock, -1, -1},
        {"gettimeofday", "clock", Watch::virtual_time, Service::clock, -1, -1},
        {"time", "clock", Watch::virtual_time, Service::clock, -1, -1},
        {"clone", "clone", Watch::virtual_time, Service::clone, -1, -1},
        {"clone3", "clone", Watch::virtual_time, Service::clone, -1, -1},
        {"set_robust_list", "thread", Watch::virtual_time, Service::thread_start, -1, -1},
        {"rseq", "thread", Watch::virtual_time, Service::thread_start, -1, -1},
        {"exit", "exit", Watch::virtual_time, Service::thread_end, -1, -1},

        {"read", "read", Watch::faults, Service::look, -1, 0},
        {"write", "write", Watch::faults, Service::write, -1, 0},
        {"lseek", "lseek", Watch::faults, Service::look, -1, 0},
        {"fsync", "fsync", Watch::faults, Service::look, -1, 0},
        {"ftruncate", "ftruncate", Watch::faults, Service::look, -1, 0},
        {"fstat", "stat", Watch::faults, Service::look, -1, 0},
        {"stat", "stat", Watch::faults, Service::look, 0, -1},
        {"lstat", "stat", Watch::faults, Service::look, 0, -1},
        {"newfstatat", "stat", Watch::faults, Service::look, 1, 0},
        {"statx", "stat", Watch::faults, Service::look, 1, 0},
        {"chmod", "chmod", Watch::faults, Service::look, 0, -1},
        {"fchmod", "chmod", Watch::faults, Service::look, -1, 0},
        {"fchmodat", "chmod", Watch::faults, Service::look, 1, -1},
        {"getdents64", "readdir", Watch::faults, Service::look, -1, 0},
        {"mmap", "mmap", Watch::faults, Service::look, -1, 4},
        {"brk", "mmap", Watch::faults, Service::look, -1, -1},
};

bool has_fault(const Scenario& scenario, const CallShape& shape) {
    return std::any_of(scenario.faults.begin(), scenario.faults.end(),
                       [&](const Fault& fault) { return fault.call == shape.family; });
}

// Everything else that this machine's kernel has, but for the calls that bring the filter about.
void add_others(std::vector<CallShape>& shapes) {
    constexpr int kBeyondCalls = 1024;
    static std::list<std::string> names;
    for (int number = 0; number < kBeyondCalls; number++) {
        char* known = seccomp_syscall_resolve_num_arch(SCMP_ARCH_NATIVE, number);
        const std::string name = known == nullptr ? "" : known;
        free(known);
        const bool own = name.empty() || name == "kill" || name == "close" || name == "execve" ||
                         std::any_of(shapes.begin(), shapes.end(), [&](const CallShape& shape) {
                             return shape.number == number;
                         });
        if (own) continue;
        names.push_back(name);
        const char* text = names.back().c_str();
        shapes.push_back({text, text, Watch::always, Service::other, -1, -1, number});
    }
}

}  // namespace

std::vector<CallShape> calls_to_watch(const Scenario& scenario, bool virtual_time, bool all) {
    std::vector<CallShape> shapes;
    for (CallShape shape : kShapes) {
        const bool disk = shape.service == Service::write && scenario.full_after;
        const bool wanted = shape.watch == Watch::always ||
                            (shape.watch == Watch::virtual_time && virtual_time) || disk ||
                            has_fault(scenario, shape) || all;
        shape.number = seccomp_syscall_resolve_name(shape.name);
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
    scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ALLOW);
    if (filter == nullptr) throw Unable("cannot make a system-call filter");
    for (const CallShape& shape : shapes) {
        std::vector<scmp_arg_cmp> only;
        if (shape.service == Service::ioctl)
            only = {SCMP_A1(SCMP_CMP_MASKED_EQ, 0xFF00, kLnkmType << 8)};
        if (std::string(shape.name) == "prctl") only = {SCMP_A0(SCMP_CMP_EQ, PR_SET_KEEPCAPS, 0)};
        if (std::string(shape.name) == "clone")
            only = {SCMP_A0(SCMP_CMP_MASKED_EQ, CLONE_THREAD, CLONE_THREAD)};
        const int result = seccomp_rule_add_array(filter, SCMP_ACT_NOTIFY, shape.number,
                                                  static_cast<unsigned>(only.size()), only.data());
        if (result != 0)
            throw Forbidden(fmt::format("this kernel cannot hand over system call {}: {}",
                                        shape.name, strerror(-result)));
    }
    const int fd = memfd_create("filter", MFD_CLOEXEC);
    if (fd < 0 || seccomp_export_bpf(filter, fd) != 0)
        fail_errno("cannot make a system-call filter");
    seccomp_release(filter);
    const auto size = static_cast<size_t>(lseek(fd, 0, SEEK_END));
    Filter program(size / sizeof(sock_filter));
    if (pread(fd, program.data(), size, 0) != static_cast<ssize_t>(size))
        fail_errno("cannot read the system-call filter");
    close(fd);
    return program;
}

}  // namespace rvd::lab

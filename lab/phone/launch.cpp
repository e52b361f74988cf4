#include "lab/phone/launch.h"

#include <elf.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "lab/phone/phone.h"

namespace rvd::lab {

namespace {

// What the child exits with where it does not become the daemon: these, or the errno of its exec.
constexpr int kNoFilter = 200;
constexpr int kNoTrace = 201;

// Waits for the child to stop, as it does before and behind its exec.
void await_stop(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSTOPPED(status)) return;

    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
    if (code == kNoTrace) throw Forbidden("this machine does not let a process trace its child");
    if (code == kNoFilter)
        throw Forbidden("this kernel offers no seccomp user notification (Linux 5.5 or later)");
    throw Unable(std::string("the daemon cannot be executed: ") +
                 (code != 0 ? strerror(code) : "it was killed"));
}

// The environment is the daemon's contract and nothing else; sanitizers and coverage take theirs.
std::vector<std::string> environment() {
    std::vector<std::string> variables = {std::string("RVD_PROPERTY_DIR=") + kPropertyDir,
                                          std::string("RVD_ANDROID_LOG=") + kAndroidLog};
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS",
                             "GCOV_PREFIX", "GCOV_PREFIX_STRIP"}) {
        if (const char* value = getenv(name)) variables.push_back(std::string(name) + "=" + value);
    }
    return variables;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> list;
    for (std::string& text : texts)
        list.push_back(text.data());
    list.push_back(nullptr);
    return list;
}

using Program = std::vector<sock_filter>;

Program read_program(int fd) {
    Program program(static_cast<size_t>(lseek(fd, 0, SEEK_END)) / sizeof(sock_filter));
    const size_t size = program.size() * sizeof(sock_filter);
    if (pread(fd, program.data(), size, 0) != static_cast<ssize_t>(size))
        fail_errno("cannot read the system-call filter");
    close(fd);
    return program;
}

Program make_filter(const std::vector<Rule>& rules) {
    scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ALLOW);
    if (filter == nullptr) throw Unable("cannot make a system-call filter");
    for (const Rule& rule : rules) {
        const int result = seccomp_rule_add_array(filter, SCMP_ACT_NOTIFY, rule.call,
                                                  static_cast<unsigned>(rule.arguments.size()),
                                                  rule.arguments.data());
        if (result != 0)
            throw Forbidden(fmt::format("this kernel cannot hand over system call {}: {}",
                                        rule.call, strerror(-result)));
    }
    const int fd = memfd_create("filter", MFD_CLOEXEC);
    if (fd < 0 || seccomp_export_bpf(filter, fd) != 0)
        fail_errno("cannot make a system-call filter");
    seccomp_release(filter);
    return read_program(fd);
}

// Where the filter's notifications are in the child: the first descriptor behind the standard ones.
constexpr int kListener = 3;

// The last thing before the daemon: from here on its calls are the lab's, which takes the
// notifications while the child has stopped. Nothing may allocate behind the filter: nobody would
// answer the call that asks for memory.
void hand_over_calls(const Program& filter) {
    signal(SIGPIPE, SIG_IGN);  // a device node never raises it
    const pid_t self = getpid();
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(kNoTrace);
    const sock_fprog program = {static_cast<unsigned short>(filter.size()),
                                const_cast<sock_filter*>(filter.data())};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    if (syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program) !=
        kListener)
        _exit(errno == EMFILE ? EMFILE : kNoFilter);
    kill(self, SIGSTOP);
}

// Where the kernel put the argument count on the new stack; field 28 of the status line.
uint64_t stack_start(pid_t pid) {
    const std::string status = read_file(fmt::format("/proc/{}/stat", pid));
    size_t at = status.rfind(')') + 1;
    for (int field = 2; field < 27; field++)
        at = status.find(' ', at + 1);
    return strtoull(status.c_str() + at, nullptr, 10);
}

// The C library asks the kernel's shared page for the time unless it isn't told of one.
void hide_shared_clock(pid_t pid) {
    std::vector<uint64_t> stack(8192);
    uint64_t base = stack_start(pid);
    iovec local = {stack.data(), stack.size() * sizeof(uint64_t)};
    iovec remote = {reinterpret_cast<void*>(base), local.iov_len};
    const ssize_t got = process_vm_readv(pid, &local, 1, &remote, 1, 0);
    if (got <= 0) fail_errno("cannot read the daemon's stack");
    stack.resize(static_cast<size_t>(got) / sizeof(uint64_t));
    size_t at = 1 + stack[0] + 1;  // arguments
    while (at < stack.size() && stack[at] != 0)
        at++;  // environment
    for (at++; at + 1 < stack.size() && stack[at] != AT_NULL; at += 2) {
        if (stack[at] != AT_SYSINFO_EHDR) continue;
        uint64_t ignore = AT_IGNORE;
        local = {&ignore, sizeof(ignore)};
        remote = {reinterpret_cast<void*>(base + at * sizeof(uint64_t)), sizeof(ignore)};
        if (process_vm_writev(pid, &local, 1, &remote, 1, 0) < 0)
            fail_errno("cannot write the daemon's stack");
    }
}

}  // namespace

void become_daemon(const std::string& root, const std::vector<std::string>& arguments,
                   const std::function<void()>& last) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::vector<std::string> words = {kDaemonPath};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<std::string> variables = environment();
    const std::vector<char*> argv = pointers(words), envp = pointers(variables);
    const int output = open((root + kOutput).c_str(), O_WRONLY | O_APPEND);
    const int input = open("/dev/null", O_RDONLY);
    dup2(input, 0);
    dup2(output, 1);
    dup2(output, 2);
    close_range(kListener, ~0u, 0);
    // As a phone's first process starts it; in a user namespace the kernel refuses.
    setgroups(1, &kLogGroup);
    if (chroot(root.c_str()) == 0 && chdir("/") == 0) {
        last();
        execve(kDaemonPath, argv.data(), envp.data());
    }
    _exit(errno);
}

Process launch(const std::string& root, const std::vector<std::string>& arguments,
               const std::vector<Rule>& rules, bool virtual_time) {
    const Program filter = make_filter(rules);
    Process process;
    process.pid = fork();
    if (process.pid < 0) fail_errno("cannot fork");
    if (process.pid == 0) become_daemon(root, arguments, [&] { hand_over_calls(filter); });
    await_stop(process.pid);
    process.pidfd = static_cast<int>(syscall(SYS_pidfd_open, process.pid, 0));
    process.listener = static_cast<int>(syscall(SYS_pidfd_getfd, process.pidfd, kListener, 0));
    if (process.listener < 0) fail_errno("cannot take the daemon's system calls");
    ptrace(PTRACE_CONT, process.pid, nullptr, nullptr);
    await_stop(process.pid);
    if (virtual_time) hide_shared_clock(process.pid);
    ptrace(PTRACE_DETACH, process.pid, nullptr, nullptr);
    return process;
}

}  // namespace rvd::lab

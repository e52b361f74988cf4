#include "lab/campaign/workers.h"

#include <fmt/core.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>

#include "lab/campaign/work_directory.h"

namespace rvd::lab {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(RecordedCall, name, nth, path, last_line)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(RunRecord, end, lasted, open, requests, modem, files, calls)

namespace {

using Clock = std::chrono::steady_clock;

struct Worker {
    size_t job;
    Outcome outcome;
    Clock::time_point start;
    ScopedFd output;       // none: the lab's own standard output
    ScopedFd report_file;  // violations and record
};

// Blocks the signals that this process waits for; restored in each child.
class Signals {
  public:
    Signals() {
        sigemptyset(&blocked_);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD})
            sigaddset(&blocked_, signal);
        sigprocmask(SIG_BLOCK, &blocked_, &before_);
    }
    ~Signals() { restore(); }
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    void restore() const { sigprocmask(SIG_SETMASK, &before_, nullptr); }

    // Waits up to a second for one of them. Returns its number, or 0.
    int wait() const {
        const timespec second = {1, 0};
        return std::max(sigtimedwait(&blocked_, nullptr, &second), 0);
    }

  private:
    sigset_t blocked_, before_;
};

ScopedFd make_memory_file() {
    ScopedFd file(memfd_create("rvd-lab", MFD_CLOEXEC));
    if (!file.valid()) throw_errno("cannot create a memory file");
    return file;
}

// With --root, each of several phones gets a directory of its own.
RunOptions options_for(const Job& job, const WorkDirectory& directory) {
    RunOptions options = job.options;
    options.keep = !options.root.empty();
    options.root = directory.path();
    if (!options.keep || job.direct) return options;
    std::string leaf = job.scenario.name;
    std::replace(leaf.begin(), leaf.end(), '/', '_');
    std::replace(leaf.begin(), leaf.end(), ' ', '-');
    options.root += "/" + leaf;
    std::filesystem::create_directory(options.root);
    return options;
}

// Carries out a job in the child and writes its violations and record to `report_file`.
int run_in_child(const Job& job, const WorkDirectory& directory, int report_file) {
    int status = kPassed;
    Result result;
    try {
        result = run_scenario(job.scenario, options_for(job, directory));
        if (!result.violations.empty()) status = kFailed;
        if (fflush(stdout) != 0 || ferror(stdout) != 0) throw_errno("cannot write the story");
    } catch (const Reboots&) {
        status = kRebooting;
    } catch (const std::exception& error) {
        status = dynamic_cast<const Unsupported*>(&error) != nullptr ? kUnsupported : kError;
        result.violations = {error.what()};
    }
    if (!job.options.record_calls) result.record = {};
    const auto bytes =
            nlohmann::json::to_cbor({{"violations", result.violations}, {"record", result.record}});
    if (write(report_file, bytes.data(), bytes.size()) < 0) perror("rvd-lab");
    return status;
}

pid_t start(const Job& job, const WorkDirectory& directory, const Signals& signals,
            const Worker& worker) {
    fflush(stdout);
    const pid_t pid = fork();
    if (pid < 0) throw_errno("cannot fork");
    if (pid > 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGPIPE, SIG_DFL);
    signals.restore();
    if (worker.output.valid()) dup2(worker.output.get(), STDOUT_FILENO);
    const int status = run_in_child(job, directory, worker.report_file.get());
    fflush(stdout);
    _exit(status);
}

void finish(Worker& worker, int status) {
    Outcome& outcome = worker.outcome;
    outcome.spent = Clock::now() - worker.start;
    const bool direct = !worker.output.valid();
    if (!direct) outcome.output = read_file(worker.output.get());
    if (WIFEXITED(status)) {
        outcome.status = WEXITSTATUS(status);
        const auto report = nlohmann::json::from_cbor(read_file(worker.report_file.get()));
        report.at("violations").get_to(outcome.violations);
        report.at("record").get_to(outcome.record);
    } else if (const int number = WTERMSIG(status); number == SIGPIPE && direct) {
        outcome.status = kSignalBase + number;  // the reader of the story closed the pipe
    } else {
        outcome.status = kFailed;
        outcome.violations = {
                fmt::format("the run was ended by signal {} ({})", number, sigdescr_np(number))};
    }
}

}  // namespace

int run_each(size_t count, int jobs, const std::function<Job(size_t)>& make,
             const std::function<void(size_t, Outcome&)>& done, const std::function<void()>& tick) {
    const Signals signals;
    std::optional<WorkDirectory> directory;
    std::map<pid_t, Worker> workers;
    int interrupted = 0;
    size_t started = 0;
    const auto has_more = [&] { return interrupted == 0 && started < count; };
    while (has_more() || !workers.empty()) {
        while (has_more() && workers.size() < static_cast<size_t>(jobs)) {
            const Job job = make(started);
            if (!directory) directory.emplace(job.options.root);
            Worker worker{started++,
                          {},
                          Clock::now(),
                          job.direct ? ScopedFd() : make_memory_file(),
                          make_memory_file()};
            worker.outcome.suite = job.suite;
            worker.outcome.name = job.scenario.name;
            const pid_t pid = start(job, *directory, signals, worker);
            workers.emplace(pid, std::move(worker));
        }
        if (const int signal = signals.wait(); signal != 0 && signal != SIGCHLD) {
            // A soak finishes its pass at the first signal; the second kills what is left.
            for (const auto& [pid, worker] : workers)
                kill(pid, interrupted == 0 ? SIGTERM : SIGKILL);
            interrupted = signal;
        }
        int status = 0;
        for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
            const auto found = workers.find(pid);
            if (found == workers.end()) continue;
            Worker& worker = found->second;
            finish(worker, status);
            // SIGINT of a terminal may reach the run before it reaches the lab.
            if (WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) interrupted = SIGINT;
            if (interrupted == 0 || WIFEXITED(status)) done(worker.job, worker.outcome);
            workers.erase(found);
        }
        if (tick) tick();
    }
    return interrupted;
}

void throw_if_not_run(const Outcome& outcome) {
    if (outcome.status == kUnsupported) throw Unsupported(outcome.violations.at(0));
    if (outcome.status == kError) throw Error(outcome.violations.at(0));
}

}  // namespace rvd::lab

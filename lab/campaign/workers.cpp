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
#include <map>
#include <nlohmann/json.hpp>

#include "lab/campaign/workplace.h"

namespace rvd::lab {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(MadeCall, call, time, path, place)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Conduct, end, lasted, open, requests, modem, files, calls)

namespace {

using Clock = std::chrono::steady_clock;

struct Worker {
    size_t job;
    Outcome outcome;
    Workplace place;
    Clock::time_point start;
    FILE* output;  // null: the lab's own
    FILE* answer;  // violations and conduct
};

// The signals that this process takes between the runs, and gives back to each.
class Signals {
  public:
    Signals() {
        sigemptyset(&taken_);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD})
            sigaddset(&taken_, signal);
        sigprocmask(SIG_BLOCK, &taken_, &before_);
    }
    ~Signals() { give_back(); }
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    void give_back() const { sigprocmask(SIG_SETMASK, &before_, nullptr); }

    // The one that came within a second; 0 where none did.
    int wait() const {
        const timespec second = {1, 0};
        return std::max(sigtimedwait(&taken_, nullptr, &second), 0);
    }

  private:
    sigset_t taken_, before_;
};

FILE* make_file() {
    const int fd = memfd_create("rvd-lab", MFD_CLOEXEC);
    FILE* const file = fd < 0 ? nullptr : fdopen(fd, "w+");
    if (file == nullptr) fail_errno("cannot keep what a run says");
    return file;
}

std::string take_all(FILE* from) {
    std::string text(static_cast<size_t>(lseek(fileno(from), 0, SEEK_END)), '\0');
    rewind(from);
    text.resize(fread(text.data(), 1, text.size(), from));
    fclose(from);
    return text;
}

// As a run's process: what it leaves in `answer` is what its outcome is made of.
int work(const Job& job, const RunOptions& options, FILE* answer) {
    int status = kHeld;
    Result result;
    try {
        result = run_scenario(job.scenario, options);
        if (!result.violations.empty()) status = kNotHeld;
        if (fflush(stdout) != 0 || ferror(stdout) != 0) fail_errno("cannot write the story");
    } catch (const Reboots&) {
        status = kReboots;
    } catch (const std::exception& error) {
        status = dynamic_cast<const Forbidden*>(&error) != nullptr ? kForbidden : kRefused;
        result.violations = {error.what()};
    }
    if (!options.learn) result.conduct = {};
    const auto bytes =
            nlohmann::json::to_cbor({{"wrong", result.violations}, {"conduct", result.conduct}});
    fwrite(bytes.data(), 1, bytes.size(), answer);
    fflush(answer);
    return status;
}

std::string leaf_of(std::string name) {
    std::replace(name.begin(), name.end(), '/', '_');
    std::replace(name.begin(), name.end(), ' ', '-');
    return name;
}

Worker make_worker(size_t number, const Job& job) {
    const std::string& root = job.options.root;
    const bool own = root.empty() || job.direct;
    // Each part has a name: a compiler frees some of them twice where one in a braced list throws.
    Workplace place(own ? root : root + "/" + leaf_of(job.scenario.name));
    Outcome outcome;
    outcome.suite = job.suite;
    outcome.name = job.scenario.name;
    FILE* const output = job.direct ? nullptr : make_file();
    return {number, std::move(outcome), std::move(place), Clock::now(), output, make_file()};
}

pid_t start(const Job& job, const Signals& signals, const Worker& worker) {
    RunOptions options = job.options;
    options.keep = !options.root.empty();
    options.root = worker.place.path();
    fflush(stdout);
    const pid_t pid = fork();
    if (pid < 0) fail_errno("cannot fork");
    if (pid > 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGPIPE, SIG_DFL);
    signals.give_back();
    if (worker.output != nullptr) dup2(fileno(worker.output), STDOUT_FILENO);
    const int status = work(job, options, worker.answer);
    fflush(stdout);
    _exit(status);
}

void finish(Worker& worker, int status) {
    Outcome& outcome = worker.outcome;
    outcome.spent = Clock::now() - worker.start;
    if (worker.output != nullptr) outcome.output = take_all(worker.output);
    const std::string answer = take_all(worker.answer);
    if (WIFEXITED(status)) {
        outcome.status = WEXITSTATUS(status);
        const auto said = nlohmann::json::from_cbor(answer);
        said.at("wrong").get_to(outcome.violations);
        said.at("conduct").get_to(outcome.conduct);
    } else if (const int number = WTERMSIG(status); number == SIGPIPE && !worker.output) {
        outcome.status = kSignal + number;  // whoever read the story has had enough of it
    } else {
        outcome.status = kNotHeld;
        outcome.violations = {
                fmt::format("the run was ended by signal {} ({})", number, sigdescr_np(number))};
    }
}

}  // namespace

int run_each(size_t count, int jobs, const std::function<Job(size_t)>& make,
             const std::function<void(size_t, Outcome&)>& done, const std::function<void()>& tick) {
    sweep_workplaces();
    const Signals signals;
    std::map<pid_t, Worker> workers;
    int interrupted = 0;
    size_t started = 0;
    const auto more = [&] { return interrupted == 0 && started < count; };
    while (more() || !workers.empty()) {
        while (more() && workers.size() < static_cast<size_t>(jobs)) {
            const Job job = make(started);
            Worker worker = make_worker(started++, job);
            const pid_t pid = start(job, signals, worker);
            workers.emplace(pid, std::move(worker));
        }
        if (const int signal = signals.wait(); signal != 0 && signal != SIGCHLD) {
            // A soak ends its pass on the first one; whatever is left, on the second.
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
            // A terminal's signal reaches the run before it does the lab.
            if (WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) interrupted = SIGINT;
            if (interrupted == 0 || WIFEXITED(status)) done(worker.job, worker.outcome);
            workers.erase(found);
        }
        if (tick) tick();
    }
    return interrupted;
}

void rethrow(const Outcome& outcome) {
    if (outcome.status == kForbidden) throw Forbidden(outcome.violations.at(0));
    if (outcome.status == kRefused) throw Unable(outcome.violations.at(0));
}

}  // namespace rvd::lab

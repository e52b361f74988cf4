#include "lab/campaign.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>

namespace fs = std::filesystem;

namespace rvd::lab {

namespace {

struct Worker {
    std::string name;
    std::string root;
    FILE* output;  // null: the terminal
};

// The directory for the phone's root: the one named, one of its own in it for each of several runs,
// or one that lasts as long as the run.
std::string make_root(const RunOptions& options, const std::string& name) {
    if (!options.root.empty()) {
        std::string leaf = name;
        std::replace(leaf.begin(), leaf.end(), '/', '_');
        std::replace(leaf.begin(), leaf.end(), ' ', '-');
        const fs::path path = leaf.empty() ? fs::path(options.root) : fs::path(options.root) / leaf;
        fs::create_directories(path);
        return fs::canonical(path);
    }
    std::string pattern = (fs::temp_directory_path() / "rvd-lab.XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) fail_errno("cannot make a directory for the phone");
    return pattern;
}

int work(const Scenario& scenario, const RunOptions& options) try {
    const auto violations = run_scenario(scenario, options);
    return violations.empty() ? kHeld : kNotHeld;
} catch (const Reboots&) {
    return kReboots;
} catch (const Unable& unable) {
    printf("rvd-lab: %s\n", unable.what());
    return kUnable;
} catch (const fs::filesystem_error& error) {
    printf("rvd-lab: %s\n", error.what());
    return kUnable;
}

pid_t start(const Scenario& scenario, RunOptions options, Worker& worker) {
    worker.root = make_root(options, worker.name);
    options.keep = !options.root.empty();
    options.root = worker.root;
    fflush(stdout);
    const pid_t pid = fork();
    if (pid < 0) fail_errno("cannot fork");
    if (pid > 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (worker.output != nullptr) dup2(fileno(worker.output), STDOUT_FILENO);
    const int result = work(scenario, options);
    fflush(stdout);
    _exit(result);
}

int finish(const Worker& worker, int status, bool keep) {
    std::error_code none;
    if (!keep) fs::remove(worker.root, none);
    return WIFEXITED(status) ? WEXITSTATUS(status) : kUnable;
}

void copy_out(FILE* from) {
    char piece[4096];
    rewind(from);
    for (size_t n; (n = fread(piece, 1, sizeof(piece), from)) > 0;)
        fwrite(piece, 1, n, stdout);
}

}  // namespace

int run_one(const Scenario& scenario, RunOptions options) {
    Worker worker{"", "", nullptr};
    const pid_t pid = start(scenario, options, worker);
    int status = 0;
    waitpid(pid, &status, 0);
    return finish(worker, status, !options.root.empty());
}

int run_all(const std::vector<Scenario>& scenarios, RunOptions options, int jobs, bool quiet) {
    std::map<pid_t, Worker> workers;
    size_t started = 0, passed = 0, failed = 0;
    int worst = kHeld;
    while (started < scenarios.size() || !workers.empty()) {
        if (started < scenarios.size() && workers.size() < static_cast<size_t>(jobs)) {
            const Scenario& scenario = scenarios[started++];
            Worker worker{scenario.name, "", tmpfile()};
            const pid_t pid = start(scenario, options, worker);
            workers.emplace(pid, worker);
            continue;
        }
        int status = 0;
        const pid_t pid = wait(&status);
        const auto found = workers.find(pid);
        if (found == workers.end()) continue;
        const Worker worker = found->second;
        workers.erase(found);
        const int result = finish(worker, status, !options.root.empty());
        worst = std::max(worst, result);
        (result == kHeld ? passed : failed)++;
        if (result != kHeld || !quiet)
            printf("%-8s  %s\n", result == kHeld ? "held" : "NOT HELD", worker.name.c_str());
        if (result != kHeld || options.summary) copy_out(worker.output);
        fclose(worker.output);
    }
    printf("%zu passed, %zu failed\n", passed, failed);
    return worst;
}

}  // namespace rvd::lab

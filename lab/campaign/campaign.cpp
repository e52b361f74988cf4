#include "lab/campaign/campaign.h"

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
    bool keep;
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
    const Result result = run_scenario(scenario, options);
    if (options.learn) print_conduct(result.conduct);
    for (const std::string& violation : result.violations) {
        if (!options.story) printf("    %s\n", violation.c_str());
    }
    return result.violations.empty() ? kHeld : kNotHeld;
} catch (const Reboots&) {
    return kReboots;
} catch (const std::exception& error) {
    printf("rvd-lab: %s\n", error.what());
    return dynamic_cast<const Forbidden*>(&error) != nullptr ? kForbidden : kRefused;
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

int finish(const Worker& worker, int status) {
    std::error_code none;
    if (!worker.keep) fs::remove(worker.root, none);
    return WIFEXITED(status) ? WEXITSTATUS(status) : kNotHeld;
}

}  // namespace

std::string read_all(FILE* from) {
    std::string text;
    char piece[4096];
    for (size_t n; (n = fread(piece, 1, sizeof(piece), from)) > 0;)
        text.append(piece, n);
    return text;
}

int run_one(const Scenario& scenario, RunOptions options) {
    Worker worker{"", "", nullptr, !options.root.empty()};
    const pid_t pid = start(scenario, options, worker);
    int status = 0;
    waitpid(pid, &status, 0);
    return finish(worker, status);
}

void run_each(const std::function<std::optional<Job>()>& next, int jobs, const Done& done) {
    std::map<pid_t, Worker> workers;
    std::optional<Job> job = next();
    while (job || !workers.empty()) {
        if (job && workers.size() < static_cast<size_t>(jobs)) {
            Worker worker{job->scenario.name, "", tmpfile(), !job->options.root.empty()};
            const pid_t pid = start(job->scenario, job->options, worker);
            workers.emplace(pid, worker);
            job = next();
            continue;
        }
        int status = 0;
        const auto found = workers.find(wait(&status));
        if (found == workers.end()) continue;
        const Worker worker = found->second;
        workers.erase(found);
        const int result = finish(worker, status);
        rewind(worker.output);
        done(worker.name, result, worker.output);
        fclose(worker.output);
    }
}

int run_all(const std::vector<Scenario>& scenarios, const RunOptions& options, int jobs,
            bool quiet) {
    size_t started = 0, passed = 0;
    int worst = kHeld;
    const auto next = [&]() -> std::optional<Job> {
        if (started == scenarios.size()) return {};
        return Job{scenarios[started++], options};
    };
    run_each(next, jobs, [&](const std::string& name, int result, FILE* output) {
        worst = std::max(worst, result);
        passed += result == kHeld;
        if (result != kHeld || !quiet)
            printf("%-8s  %s\n", result == kHeld ? "held" : "NOT HELD", name.c_str());
        if (result != kHeld || options.summary) fputs(read_all(output).c_str(), stdout);
    });
    printf("%zu passed, %zu failed\n", passed, scenarios.size() - passed);
    return worst;
}

}  // namespace rvd::lab

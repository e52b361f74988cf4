#include "lab/campaign/faults.h"

#include <fmt/core.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "lab/builtin.h"
#include "lab/campaign/trial.h"

namespace rvd::lab {

namespace {

// How each call can fail. The calls after the blank line never fail, or their failure has no
// effect.
const std::map<std::string, std::vector<const char*>> kFailures = {
        {"open", {"EACCES", "EMFILE", "EINTR", "EIO", "ENOENT", "ENOSPC"}},
        {"read", {"EIO", "EINTR", "short", "end", "hang-up"}},
        {"write", {"EIO", "EINTR", "ENOSPC", "short", "hang-up"}},
        {"ioctl", {"EIO", "EINTR", "ENODEV", "hang-up"}},
        {"poll", {"EINTR", "ENOMEM", "hang-up"}},
        {"lseek", {"EINVAL", "ESPIPE"}},
        {"fsync", {"EIO", "ENOSPC", "EINTR"}},
        {"ftruncate", {"EIO", "EINTR"}},
        {"stat", {"EACCES", "EIO", "ENOMEM"}},
        {"statfs", {"EIO", "EINTR", "ENOSYS"}},
        {"syslog", {"EPERM", "ENOSYS"}},
        {"mkdir", {"ENOSPC", "EACCES", "EROFS"}},
        {"unlink", {"EACCES", "EIO", "EROFS"}},
        {"rmdir", {"EACCES", "EIO", "EROFS"}},
        {"rename", {"EACCES", "EIO", "ENOSPC"}},
        {"link", {"EACCES", "EIO", "ENOSPC"}},
        {"chmod", {"EPERM", "EIO", "EROFS"}},
        {"chown", {"EPERM", "EIO", "EROFS"}},
        {"readdir", {"EIO", "ENOMEM"}},
        {"mmap", {"ENOMEM"}},
        {"clone", {"EAGAIN"}},
        {"prctl", {"EINVAL"}},
        {"setuid", {"EPERM", "EAGAIN"}},
        {"capset", {"EPERM"}},

        {"clock", {}},
        {"exit", {}},
        {"exit_group", {}},
        {"pause", {}},
        {"sleep", {}},
        {"sync", {}},
        {"thread", {}},
        {"umask", {}},
};

// Calls that the C library makes for its own purposes. They are left alone.
const std::set<std::string> kIgnoredCalls = {
        "munmap",  "mprotect", "madvise",           "futex",        "getpid",
        "gettid",  "connect",  "rt_sigprocmask",    "rt_sigaction", "socket",
        "fstatfs", "getuid",   "geteuid",           "getrandom",    "prlimit64",
        "access",  "fcntl",    "sched_getaffinity", "sigaltstack"};

const std::set<std::string> kModifyingCalls = {"open",   "write", "ioctl", "rename",    "link",
                                               "unlink", "rmdir", "mkdir", "ftruncate", "fsync",
                                               "sync",   "chmod", "chown"};

constexpr char kHangUp[] = "hang-up";

const std::map<std::string, FaultKind> kKinds = {
        {"fail", FaultKind::fail}, {"kill", FaultKind::kill}, {"cut", FaultKind::cut}};

// The names of a power cut's failures, by how much unflushed data survives.
const std::map<std::string, Disk::Survival> kCuts = {{"nothing", Disk::Survival::none},
                                                     {"all", Disk::Survival::all},
                                                     {"part", Disk::Survival::some}};

struct Row {
    Scenario flow;
    RunRecord baseline;
    size_t calls = 0, faults = 0, passed = 0;
};

struct PlannedFault {
    size_t row;
    RecordedCall call;
    std::string name, failure;  // FLOW:CALL:N:FAILURE
};

// Whether no later pass can recover. An NV file is never rewritten, even if its content is
// incomplete; and a daemon that is still root but has lost its capabilities cannot create one in
// the radio user's directory.
bool is_unrecoverable(const std::string& flow, const RecordedCall& call,
                      const std::string& failure) {
    const bool partly = call.name == "write" && call.path == "/mnt/vendor/efs/#unnamed" &&
                        (failure == "EIO" || failure == "ENOSPC");
    const bool root = call.name == "setuid" && failure[0] == 'E';
    return flow == "first-boot" && (partly || root);
}

// Whether a failure is possible on the call's path.
bool possible(const RecordedCall& call, const std::string& failure) {
    const bool node = call.path == "/dev/boot" || call.path == "/dev/dump";
    if (failure == kHangUp) return node;
    if (failure == "short" && call.path == "/dev/kmsg")
        return false;  // a record is never written in part
    if (failure == "end") return call.path != "/proc/cmdline" && !node;
    if (failure == "ENOENT") return matches("/dev/*", call.path) || matches("/sys/*", call.path);
    if (failure == "ENOSPC" && call.name == "open") return starts_with(call.path, "/data/");
    if (failure == "ENOSPC") return !node;
    return true;
}

// Keeps writes to the logs from dominating a sample: of similar calls, the first two, the middle
// one and the last. Similar calls have the same name, path and preceding log line; for writes to a
// log the line does not count.
std::vector<RecordedCall> sample_similar(const std::vector<RecordedCall>& calls) {
    std::map<std::string, std::vector<RecordedCall>> similar;
    for (const RecordedCall& call : calls) {
        const bool log = call.path == "/dev/kmsg" || call.path == kAndroidLog;
        similar[call.name + " " + call.path + " " + (log ? "" : call.last_line)].push_back(call);
    }
    std::vector<RecordedCall> chosen;
    for (const auto& [key, all] : similar) {
        const std::set<size_t> indices = {0, std::min<size_t>(1, all.size() - 1), all.size() / 2,
                                          all.size() - 1};
        for (const size_t index : indices)
            chosen.push_back(all[index]);
    }
    return chosen;
}

// The failures to try at this call. A power cut, and a kill in a sample, leave out calls that
// modify nothing: their effect is that of the next call.
std::vector<const char*> failures_for(const FaultOptions& options, const RecordedCall& call) {
    const bool changes = kModifyingCalls.count(call.name) != 0;
    const bool on_disk = call.name == "ioctl" || call.name == "sync" || Disk::contains(call.path);
    std::vector<const char*> chosen;
    switch (kKinds.at(options.kind)) {
        case FaultKind::kill:
            if (changes || options.spread == 0) chosen = {"before", "after"};
            break;
        case FaultKind::cut:
            if (changes && on_disk) chosen = {"nothing", "all", "part"};
            break;
        case FaultKind::fail:
            for (const char* failure : failures_of(call.name)) {
                if (possible(call, failure)) chosen.push_back(failure);
            }
    }
    return chosen;
}

std::vector<PlannedFault> plan(std::vector<Row>& rows, const FaultOptions& options) {
    std::vector<PlannedFault> planned;
    for (size_t i = 0; i < rows.size(); i++) {
        const std::vector<RecordedCall>& calls = rows[i].baseline.calls;
        for (const RecordedCall& call : options.spread > 0 ? sample_similar(calls) : calls) {
            const auto all = failures_for(options, call);
            rows[i].calls += !all.empty();
            for (const char* failure : all)
                planned.push_back({i, call,
                                   fmt::format("{}:{}:{}:{}", rows[i].flow.name, call.name,
                                               call.nth, failure),
                                   failure});
        }
    }
    return planned;
}

Job make_job(const PlannedFault& planned, const Row& row, const FaultOptions& options) {
    const auto& [row_index, call, name, failure] = planned;
    const FaultKind kind = kKinds.at(options.kind);
    Job job{row.flow.name, row.flow, options.run};
    job.options.story = name == options.only;
    job.options.record_calls = kind != FaultKind::fail;  // stops the daemon exactly at the call
    job.scenario.name = name;
    job.scenario.faults.push_back(make_fault(call.name, call.nth, failure));
    RunRecord baseline = row.baseline;
    if (is_unrecoverable(row.flow.name, call, failure)) {
        job.scenario.timeline.clear();
        baseline.end = "limit";
        baseline.lasted = row.flow.limit;
    }
    const auto survival = kind == FaultKind::cut ? kCuts.at(failure) : Disk::Survival::all;
    job.options.controller = std::make_shared<Trial>(kind, survival, std::move(baseline));
    return job;
}

std::vector<Row> choose_flows(const std::string& wanted) {
    std::vector<Row> rows;
    std::vector<std::string> names;
    for (Scenario& flow : parse_scenarios(kFlows, "flows.toml")) {
        names.push_back(flow.name);
        if (wanted.empty() || flow.name == wanted) rows.push_back({std::move(flow), {}});
    }
    if (rows.empty())
        throw Error("no flow is called \"" + wanted + "\"" + did_you_mean(wanted, names));
    return rows;
}

// Runs each flow once without a fault. Returns the signal that interrupted it, or 0.
int run_baselines(std::vector<Row>& rows, const FaultOptions& options) {
    const auto make = [&](size_t i) {
        Job job{"", rows[i].flow, options.run};
        job.options.story = false;
        job.options.record_calls = true;
        job.options.trace = job.options.picture = job.options.log = {};
        return job;
    };
    const auto keep = [&](size_t i, Outcome& outcome) {
        throw_if_not_run(outcome);
        if (outcome.status != kPassed)
            throw Error("the flow " + outcome.name + " fails without a fault");
        rows[i].baseline = std::move(outcome.record);
    };
    return run_each(rows.size(), options.jobs, make, keep);
}

const PlannedFault& find_planned(const std::vector<PlannedFault>& planned,
                                 const std::string& name) {
    std::vector<std::string> names;
    for (const PlannedFault& one : planned) {
        if (one.name == name) return one;
        names.push_back(one.name);
    }
    throw Error("there is no fault \"" + name + "\"" + did_you_mean(name, names));
}

nlohmann::json table_of(const std::vector<Row>& rows) {
    auto flows = nlohmann::json::array();
    for (const Row& row : rows) {
        flows.push_back({{"flow", row.flow.name},
                         {"calls", row.calls},
                         {"faults", row.faults},
                         {"passed", row.passed}});
    }
    return {{"flows", flows}};
}

void print_table(const std::vector<Row>& rows) {
    Row sum;
    fmt::print("\n{:<16} {:>8} {:>8} {:>8}\n", "flow", "calls", "faults", "passed");
    const auto print = [](const std::string& name, const Row& row) {
        fmt::print("{:<16} {:8} {:8} {:8}\n", name, row.calls, row.faults, row.passed);
    };
    for (const Row& row : rows) {
        print(row.flow.name, row);
        sum.calls += row.calls;
        sum.faults += row.faults;
        sum.passed += row.passed;
    }
    print("all", sum);
}

}  // namespace

const std::vector<const char*>& failures_of(const std::string& call) {
    static const std::vector<const char*> none;
    if (kIgnoredCalls.count(call) != 0) return none;
    const auto found = kFailures.find(call);
    if (found == kFailures.end())
        throw Error("no failures are defined for the system call \"" + call + "\"");
    return found->second;
}

Fault make_fault(const std::string& call, int nth, const std::string& failure) {
    Fault fault;
    fault.call = call;
    fault.trigger.nth = nth;
    fault.hang_up = failure == kHangUp;
    if (failure == "after") fault.stop = Fault::Stop::after;
    if (failure == "before" || kCuts.count(failure) != 0) fault.stop = Fault::Stop::before;
    if (failure == "short") fault.cut = 1;
    if (failure == "end") fault.cut = 0;
    if (!fault.hang_up && !fault.cut && fault.stop == Fault::Stop::no) fault.error = failure;
    return fault;
}

int run_faults(const FaultOptions& options) {
    const std::string flow = options.only.substr(0, options.only.find(':'));
    std::vector<Row> rows = choose_flows(flow);
    Report report("faults", options.reporting);
    if (const int signal = run_baselines(rows, options))
        return report.finish(signal, table_of(rows));
    const std::vector<PlannedFault> planned = plan(rows, options);
    if (options.list) {
        for (const PlannedFault& one : planned)
            fmt::print("{}\n", one.name);
        return kPassed;
    }
    if (flow != options.only)
        return run_one(make_job(find_planned(planned, options.only), rows[0], options));

    const size_t all = planned.size();
    const size_t count =
            options.spread > 0 ? std::min<size_t>(static_cast<size_t>(options.spread), all) : all;
    const auto chosen = [&](size_t i) -> const PlannedFault& { return planned[i * all / count]; };
    size_t ended = 0;
    Progress progress("faults", count);
    const int signal = run_each(
            count, options.jobs,
            [&](size_t i) { return make_job(chosen(i), rows[chosen(i).row], options); },
            [&](size_t i, Outcome& outcome) {
                Row& row = rows[chosen(i).row];
                row.faults++;
                row.passed += outcome.status == kPassed;
                ended++;
                report.add(outcome);
            },
            [&] { progress.show(ended, report.failed()); });
    if (!options.reporting.json) print_table(rows);
    return report.finish(signal, table_of(rows));
}

}  // namespace rvd::lab

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

// What each call can really give. Those behind the blank line never fail, or with nobody to tell:
// a descriptor is closed whatever close() says.
const std::map<std::string, std::vector<const char*>> kWays = {
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

// Calls that the C library makes for itself, on memory that it has and between threads.
const std::set<std::string> kLibrary = {
        "munmap",  "mprotect", "madvise",           "futex",        "getpid",
        "gettid",  "connect",  "rt_sigprocmask",    "rt_sigaction", "socket",
        "fstatfs", "getuid",   "geteuid",           "getrandom",    "prlimit64",
        "access",  "fcntl",    "sched_getaffinity", "sigaltstack"};

const std::set<std::string> kChanging = {"open",   "write", "ioctl", "rename",    "link",
                                         "unlink", "rmdir", "mkdir", "ftruncate", "fsync",
                                         "sync",   "chmod", "chown"};

constexpr char kHangUp[] = "hang-up";

const std::map<std::string, Kind> kKinds = {
        {"fail", Kind::fail}, {"kill", Kind::kill}, {"cut", Kind::cut}};

// What survives of what was not flushed, where the power is cut.
const std::map<std::string, Disk::Unflushed> kCuts = {{"nothing", Disk::Unflushed::nothing},
                                                      {"all", Disk::Unflushed::all},
                                                      {"part", Disk::Unflushed::part}};

struct Row {
    Scenario flow;
    Conduct clean;
    size_t calls = 0, faults = 0, held = 0;
};

struct Planned {
    size_t row;
    MadeCall made;
    std::string name, way;  // FLOW:CALL:N:WAY
};

// What no later pass can mend. An NV file is never made anew, whatever is in it; and a root that
// could not become the radio user has lost the right to make one in the radio user's directory.
bool leaves_stuck(const std::string& flow, const MadeCall& made, const std::string& way) {
    const bool partly = made.call == "write" && made.path == "/mnt/vendor/efs/#unnamed" &&
                        (way == "EIO" || way == "ENOSPC");
    const bool root = made.call == "setuid" && way[0] == 'E';
    return flow == "first-boot" && (partly || root);
}

// Whether a call on this path can fail this way.
bool possible(const MadeCall& made, const std::string& way) {
    const bool node = made.path == "/dev/boot" || made.path == "/dev/dump";
    if (way == kHangUp) return node;
    if (way == "short" && made.path == "/dev/kmsg") return false;  // a record is taken whole
    if (way == "end") return made.path != "/proc/cmdline" && !node;
    if (way == "ENOENT") return matches("/dev/*", made.path) || matches("/sys/*", made.path);
    if (way == "ENOSPC" && made.call == "open") return made.path.compare(0, 6, "/data/") == 0;
    if (way == "ENOSPC") return !node;
    return true;
}

// Thins the calls out for a sample, which writes to the logs would fill otherwise: of equal calls
// from the same place on the same path, the first two, the middle one and the last. Writes to a
// log are equal wherever they come from.
std::vector<MadeCall> collapsed(const std::vector<MadeCall>& calls) {
    std::map<std::string, std::vector<MadeCall>> alike;
    for (const MadeCall& made : calls) {
        const bool log = made.path == "/dev/kmsg" || made.path == kAndroidLog;
        alike[made.call + " " + made.path + " " + (log ? "" : made.place)].push_back(made);
    }
    std::vector<MadeCall> chosen;
    for (const auto& [key, all] : alike) {
        const std::set<size_t> places = {0, std::min<size_t>(1, all.size() - 1), all.size() / 2,
                                         all.size() - 1};
        for (const size_t place : places)
            chosen.push_back(all[place]);
    }
    return chosen;
}

// The ways of a kind at this call. Around a call that changes nothing it is all the same: a cut,
// and the kills of a sample, leave those out.
std::vector<const char*> ways(const FaultOptions& options, const MadeCall& made) {
    const bool changes = kChanging.count(made.call) != 0;
    const bool on_disk = made.call == "ioctl" || made.call == "sync" || Disk::holds(made.path);
    std::vector<const char*> chosen;
    switch (kKinds.at(options.kind)) {
        case Kind::kill:
            if (changes || options.spread == 0) chosen = {"before", "after"};
            break;
        case Kind::cut:
            if (changes && on_disk) chosen = {"nothing", "all", "part"};
            break;
        case Kind::fail:
            for (const char* way : ways_to_fail(made.call)) {
                if (possible(made, way)) chosen.push_back(way);
            }
    }
    return chosen;
}

std::vector<Planned> plan(std::vector<Row>& rows, const FaultOptions& options) {
    std::vector<Planned> planned;
    for (size_t i = 0; i < rows.size(); i++) {
        const std::vector<MadeCall>& calls = rows[i].clean.calls;
        for (const MadeCall& made : options.spread > 0 ? collapsed(calls) : calls) {
            const auto all = ways(options, made);
            rows[i].calls += !all.empty();
            for (const char* way : all)
                planned.push_back(
                        {i, made,
                         fmt::format("{}:{}:{}:{}", rows[i].flow.name, made.call, made.time, way),
                         way});
        }
    }
    return planned;
}

// The run of one fault. Only what is collected from the modem is still held against the scenario.
Job trial_of(const Planned& planned, const Row& row, const FaultOptions& options) {
    const auto& [number, made, name, way] = planned;
    const Kind kind = kKinds.at(options.kind);
    Job job{row.flow.name, row.flow, options.run};
    job.options.story = name == options.only;
    job.options.learn = kind != Kind::fail;  // every call is seen, so that the stop is exact
    job.scenario.name = name;
    job.scenario.faults.push_back(make_fault(made.call, made.time, way));
    Conduct clean = row.clean;
    if (leaves_stuck(row.flow.name, made, way)) {
        job.scenario.timeline.clear();
        clean.end = "limit";
        clean.lasted = row.flow.limit;
    }
    const auto survives = kind == Kind::cut ? kCuts.at(way) : Disk::Unflushed::all;
    job.options.conductor = std::make_shared<Trial>(kind, survives, std::move(clean));
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
        throw Unable("no flow is called \"" + wanted + "\"" + did_you_mean(wanted, names));
    return rows;
}

// Runs each flow once, with no fault. Returns the signal that interrupted it, or 0.
int learn(std::vector<Row>& rows, const FaultOptions& options) {
    const auto make = [&](size_t i) {
        Job job{"", rows[i].flow, options.run};
        job.options.story = false;
        job.options.learn = true;
        job.options.trace = job.options.picture = job.options.log = {};
        return job;
    };
    const auto keep = [&](size_t i, Outcome& outcome) {
        rethrow(outcome);
        if (outcome.status != kHeld)
            throw Unable("the flow " + outcome.name + " fails without a fault");
        rows[i].clean = std::move(outcome.conduct);
    };
    return run_each(rows.size(), options.jobs, make, keep);
}

const Planned& find_planned(const std::vector<Planned>& planned, const std::string& name) {
    std::vector<std::string> names;
    for (const Planned& one : planned) {
        if (one.name == name) return one;
        names.push_back(one.name);
    }
    throw Unable("there is no fault \"" + name + "\"" + did_you_mean(name, names));
}

nlohmann::json table_of(const std::vector<Row>& rows) {
    auto flows = nlohmann::json::array();
    for (const Row& row : rows) {
        flows.push_back({{"flow", row.flow.name},
                         {"calls", row.calls},
                         {"faults", row.faults},
                         {"passed", row.held}});
    }
    return {{"flows", flows}};
}

void print_table(const std::vector<Row>& rows) {
    Row sum;
    fmt::print("\n{:<16} {:>8} {:>8} {:>8}\n", "flow", "calls", "faults", "passed");
    const auto print = [](const std::string& name, const Row& row) {
        fmt::print("{:<16} {:8} {:8} {:8}\n", name, row.calls, row.faults, row.held);
    };
    for (const Row& row : rows) {
        print(row.flow.name, row);
        sum.calls += row.calls;
        sum.faults += row.faults;
        sum.held += row.held;
    }
    print("all", sum);
}

}  // namespace

const std::vector<const char*>& ways_to_fail(const std::string& call) {
    static const std::vector<const char*> none;
    if (kLibrary.count(call) != 0) return none;
    const auto found = kWays.find(call);
    if (found == kWays.end()) throw Unable("how \"" + call + "\" can fail isn't known");
    return found->second;
}

Fault make_fault(const std::string& call, int nth, const std::string& way) {
    Fault fault;
    fault.call = call;
    fault.turn.nth = nth;
    fault.hang_up = way == kHangUp;
    if (way == "after") fault.stop = Fault::Stop::after;
    if (way == "before" || kCuts.count(way) != 0) fault.stop = Fault::Stop::before;
    if (way == "short") fault.cut = 1;
    if (way == "end") fault.cut = 0;
    if (!fault.hang_up && !fault.cut && fault.stop == Fault::Stop::no) fault.error = way;
    return fault;
}

int run_faults(const FaultOptions& options) {
    const std::string flow = options.only.substr(0, options.only.find(':'));
    std::vector<Row> rows = choose_flows(flow);
    Report report("faults", options.reporting);
    if (const int signal = learn(rows, options)) return report.finish(signal, table_of(rows));
    const std::vector<Planned> planned = plan(rows, options);
    if (options.list) {
        for (const Planned& one : planned)
            fmt::print("{}\n", one.name);
        return kHeld;
    }
    if (flow != options.only)
        return tell_one(trial_of(find_planned(planned, options.only), rows[0], options));

    const size_t all = planned.size();
    const size_t count =
            options.spread > 0 ? std::min<size_t>(static_cast<size_t>(options.spread), all) : all;
    const auto chosen = [&](size_t i) -> const Planned& { return planned[i * all / count]; };
    size_t ended = 0;
    Progress progress("faults", count);
    const int signal = run_each(
            count, options.jobs,
            [&](size_t i) { return trial_of(chosen(i), rows[chosen(i).row], options); },
            [&](size_t i, Outcome& outcome) {
                Row& row = rows[chosen(i).row];
                row.faults++;
                row.held += outcome.status == kHeld;
                ended++;
                report.add(outcome);
            },
            [&] { progress.show(ended, report.failed()); });
    if (!options.reporting.json) print_table(rows);
    return report.finish(signal, table_of(rows));
}

}  // namespace rvd::lab

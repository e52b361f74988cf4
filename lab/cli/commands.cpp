#include <fmt/core.h>
#include <sys/resource.h>
#include <time.h>

#include <nlohmann/json.hpp>

#include "lab/builtin.h"
#include "lab/campaign/faults.h"
#include "lab/campaign/soak.h"
#include "lab/cli/command_line.h"
#include "lab/cli/toc.h"
#include "lab/scenario/scenario.h"

namespace rvd::lab {

using nlohmann::literals::operator""_json_pointer;

namespace {

constexpr rlim_t kOpenFiles = 64;  // more than a run needs

void check_open_files() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < kOpenFiles)
        throw Unable(fmt::format("{} open files are not enough: ulimit -n {}", limit.rlim_cur,
                                 kOpenFiles));
}

// The options of a run with its result files open. Each holds the result of one run.
RunOptions open_results(const CommandLine& line, bool many) {
    if (many && !(line.trace + line.picture + line.log).empty())
        throw Unable("--trace, --picture and --log take one run: choose it with --case or --only");
    RunOptions options = line.run;
    options.trace = Output(line.trace);
    options.picture = Output(line.picture);
    options.log = Output(line.log);
    options.look = look_for(stdout, line.color);
    options.look.brief = line.brief;
    return options;
}

std::vector<Job> chosen(const CommandLine& line) {
    std::vector<Job> jobs;
    std::vector<std::string> names;
    for (const std::string& file : line.files) {
        for (Scenario& scenario : read_scenarios(file)) {
            names.push_back(scenario.name);
            if (line.seed) scenario.seed = *line.seed;
            if (line.only.empty() || matches(line.only, scenario.name))
                jobs.push_back({file, std::move(scenario), {}});
        }
    }
    if (jobs.empty())
        throw Unable("no case is called \"" + line.only + "\"" + did_you_mean(line.only, names));
    return jobs;
}

int demo(const CommandLine& line) {
    for (Scenario& scenario : parse_scenarios(kDemoScenario, "demo.toml")) {
        if (scenario.modem != line.modem) continue;
        if (line.seed) scenario.seed = *line.seed;
        if (!line.firmware.empty()) {
            scenario.firmware = {};
            scenario.firmware.image = line.firmware;
        }
        return tell_one({"demo", scenario, open_results(line, false)});
    }
    throw Unable("there is no demo of " + line.modem);
}

int run(const CommandLine& line, const Reporting& reporting) {
    std::vector<Job> jobs = chosen(line);
    if (line.list) {
        for (const Job& job : jobs)
            fmt::print("{}: {}\n", job.suite, job.scenario.name);
        return kHeld;
    }
    const bool one = !line.run.notebook.empty();
    if (jobs.size() > 1 && one) throw Unable("--notebook takes one case: choose it with --case");
    const RunOptions options = open_results(line, jobs.size() > 1);
    for (Job& job : jobs)
        job.options = options;
    const bool reported = reporting.json || reporting.junit;
    if (one || (jobs.size() == 1 && line.story && !reported)) return tell_one(jobs[0]);
    return run_all(jobs, line.run.device ? 1 : line.jobs, reporting);
}

int check(const CommandLine& line) {
    for (const std::string& file : line.files)
        fmt::print("{}: {} cases\n", file, read_scenarios(file).size());
    return kHeld;
}

using Schema = nlohmann::ordered_json;

// A line for each key of a table: "driver.answer[].request", and what it means.
void print_keys(const Schema& table, const std::string& path) {
    for (const auto& [name, key] : table["properties"].items()) {
        const std::string place = path + name;
        fmt::print("{:<28} {}\n", place, key["description"].get<std::string>());
        if (key.contains("properties")) print_keys(key, place + ".");
        if (key.contains("/items/properties"_json_pointer)) print_keys(key["items"], place + "[].");
        if (key.contains("/additionalProperties/properties"_json_pointer))
            print_keys(key["additionalProperties"], place + ".NAME.");
    }
}

int keys(bool json) {
    const Schema schema = scenario_schema();
    if (json) {
        fmt::print("{}\n", schema.dump(1));
    } else {
        print_keys(schema, "");
    }
    return kHeld;
}

}  // namespace

int execute(CommandLine& line) {
    using Command = CommandLine::Command;
    check_open_files();
    const Reporting reporting = {line.json, line.quiet, line.story, Output(line.junit)};
    switch (line.command) {
        case Command::demo:
            return demo(line);
        case Command::run:
            return run(line, reporting);
        case Command::check:
            return check(line);
        case Command::toc:
            return print_toc(line.firmware, line.json);
        case Command::faults: {
            const bool many = line.only.find(':') == std::string::npos;
            return run_faults({open_results(line, many),
                               line.only,
                               line.spread,
                               line.jobs,
                               line.kind,
                               line.list,
                               {line.json, true, false, reporting.junit}});
        }
        case Command::soak:
            line.run.story = line.story;
            if (line.passes == 0) line.passes = line.replays > 0 ? 10 : 10'000;
            return run_soak({line.seed.value_or(time(nullptr)), line.passes, line.shape,
                             line.replays, open_results(line, false)},
                            reporting);
        case Command::keys:
            return keys(line.json);
        case Command::none:
            break;
    }
    return kRefused;
}

}  // namespace rvd::lab

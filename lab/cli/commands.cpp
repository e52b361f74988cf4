#include <fmt/core.h>
#include <time.h>

#include <nlohmann/json.hpp>

#include "lab/builtin.h"
#include "lab/cli/command_line.h"
#include "lab/scenario/scenario.h"

namespace rvd::lab {

using nlohmann::literals::operator""_json_pointer;

namespace {

// Opens the files for results. Trace, picture and log hold one run.
void open_results(CommandLine& line, bool several) {
    if (several && !(line.trace + line.picture + line.log).empty())
        throw Error("--trace, --picture and --log take one run: choose it with --case or --only");
    line.run.trace = OutputFile(line.trace);
    line.run.picture = OutputFile(line.picture);
    line.run.log = OutputFile(line.log);
    line.run.style = choose_style(stdout, line.color);
    line.run.style.brief = line.brief;
    line.reporting.junit = OutputFile(line.junit);
}

std::vector<Job> selected_jobs(const CommandLine& line) {
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
        throw Error("no case is called \"" + line.only + "\"" + did_you_mean(line.only, names));
    return jobs;
}

// Prints a line for each key of a table: "driver.answer[].request" and its meaning.
void print_keys(const nlohmann::ordered_json& table, const std::string& path) {
    for (const auto& [name, key] : table["properties"].items()) {
        const std::string key_path = path + name;
        fmt::print("{:<28} {}\n", key_path, key["description"].get<std::string>());
        if (key.contains("properties")) print_keys(key, key_path + ".");
        if (key.contains("/items/properties"_json_pointer))
            print_keys(key["items"], key_path + "[].");
        if (key.contains("/additionalProperties/properties"_json_pointer))
            print_keys(key["additionalProperties"], key_path + ".NAME.");
    }
}

}  // namespace

int demo(CommandLine& line) {
    open_results(line, false);
    for (Scenario& scenario : parse_scenarios(kDemoScenario, "demo.toml")) {
        if (scenario.modem != line.modem) continue;
        if (line.seed) scenario.seed = *line.seed;
        if (!line.firmware.empty()) {
            scenario.firmware = {};
            scenario.firmware.image = line.firmware;
        }
        return run_one({"demo", std::move(scenario), line.run});
    }
    throw Error("there is no demo of " + line.modem);
}

int run(CommandLine& line) {
    std::vector<Job> jobs = selected_jobs(line);
    if (line.list) {
        for (const Job& job : jobs)
            fmt::print("{}: {}\n", job.suite, job.scenario.name);
        return kPassed;
    }
    const bool one = !line.run.notebook.empty();
    if (jobs.size() > 1 && one) throw Error("--notebook takes one case: choose it with --case");
    open_results(line, jobs.size() > 1);
    for (Job& job : jobs)
        job.options = line.run;
    const ReportOptions& to = line.reporting;
    if (one || (jobs.size() == 1 && to.story && !to.json && !to.junit)) return run_one(jobs[0]);
    return run_all(jobs, line.run.device ? 1 : line.jobs, to);
}

int check(CommandLine& line) {
    for (const std::string& file : line.files)
        fmt::print("{}: {} cases\n", file, read_scenarios(file).size());
    return kPassed;
}

int faults(CommandLine& line) {
    open_results(line, line.faults.only.find(':') == std::string::npos);
    line.faults.run = line.run;
    line.faults.jobs = line.jobs;
    line.faults.reporting = line.reporting;
    line.faults.reporting.quiet = true;
    return run_faults(line.faults);
}

int soak(CommandLine& line) {
    line.run.story = line.reporting.story;
    open_results(line, false);
    line.soak.run = line.run;
    line.soak.seed = line.seed.value_or(time(nullptr));
    if (line.soak.passes == 0) line.soak.passes = line.soak.replays > 0 ? 10 : 10'000;
    return run_soak(line.soak, line.reporting);
}

int keys(CommandLine& line) {
    const nlohmann::ordered_json schema = scenario_schema();
    if (line.reporting.json) {
        fmt::print("{}\n", schema.dump(1));
    } else {
        print_keys(schema, "");
    }
    return kPassed;
}

}  // namespace rvd::lab

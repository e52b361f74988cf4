#include "lab/cli/commands.h"

#include <stdio.h>
#include <time.h>

#include "lab/builtin.h"
#include "lab/campaign/campaign.h"
#include "lab/campaign/faults.h"
#include "lab/campaign/soak.h"
#include "lab/scenario/scenario.h"

namespace rvd::lab {

namespace {

std::vector<Scenario> chosen(const CommandLine& line) {
    std::vector<Scenario> scenarios;
    std::vector<std::string> names;
    for (const std::string& file : line.files) {
        for (Scenario& scenario : read_scenarios(file)) {
            names.push_back(scenario.name);
            if (line.seed) scenario.seed = *line.seed;
            if (line.only.empty() || matches(line.only, scenario.name))
                scenarios.push_back(std::move(scenario));
        }
    }
    if (scenarios.empty())
        throw Unable("no case is called \"" + line.only + "\"" + did_you_mean(line.only, names));
    return scenarios;
}

int demo(CommandLine& line) {
    for (Scenario& scenario : parse_scenarios(kDemoScenario, "demo.toml")) {
        if (scenario.modem != line.modem) continue;
        if (line.seed) scenario.seed = *line.seed;
        line.run.summary = true;
        return run_one(scenario, line.run);
    }
    throw Unable("there is no demo of " + line.modem);
}

int run(CommandLine& line) {
    const std::vector<Scenario> scenarios = chosen(line);
    if (scenarios.size() > 1 && !(line.run.trace + line.run.log).empty())
        throw Unable("--trace and --log are for one case: choose it with --case");
    if (scenarios.size() > 1 && line.run.relay)
        throw Unable("name one case with --case: --relay runs no more");
    line.run.summary = line.story;
    if (line.run.relay || (scenarios.size() == 1 && line.story))
        return run_one(scenarios[0], line.run);
    return run_all(scenarios, line.run, line.jobs, line.quiet);
}

int check(const CommandLine& line) {
    for (const std::string& file : line.files)
        printf("%s: %zu cases\n", file.c_str(), read_scenarios(file).size());
    return kHeld;
}

}  // namespace

int execute(CommandLine& line) {
    using Command = CommandLine::Command;
    switch (line.command) {
        case Command::demo:
            return demo(line);
        case Command::run:
            return run(line);
        case Command::check:
            return check(line);
        case Command::faults:
            return run_faults({line.run, line.only, line.spread, line.jobs});
        case Command::soak:
            line.run.story = line.story;
            return run_soak(line.seed.value_or(time(nullptr)), line.passes, line.run);
        case Command::keys:
            fputs(scenario_manual().c_str(), stdout);
            return kHeld;
        case Command::none:
            break;
    }
    return kRefused;
}

}  // namespace rvd::lab

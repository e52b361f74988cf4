// rvd-lab: the virtual phone's command line.

#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <filesystem>

#include "lab/builtin.h"
#include "lab/campaign/campaign.h"
#include "lab/campaign/faults.h"
#include "lab/campaign/soak.h"
#include "lab/scenario/scenario.h"

using namespace rvd::lab;

namespace {

struct CommandLine {
    RunOptions run;
    std::string modem = "tq720", only;
    std::vector<std::string> files;
    int64_t seed = 0;
    int jobs = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
    int spread = 0, passes = 10000;
    bool quiet = false, story = false;
};

std::string default_daemon() {
    std::error_code none;
    return std::filesystem::read_symlink("/proc/self/exe", none).parent_path() / "rvd";
}

void add_run_options(CLI::App& app, CommandLine& line) {
    app.add_option("--daemon", line.run.daemon, "the daemon's binary (rvd beside rvd-lab)")
            ->check(CLI::ExistingFile);
    app.add_option("--root", line.run.root, "keep the phone's files in this directory");
    app.add_option("--seed", line.seed, "seed of all content, instead of the scenario's");
    app.add_option("--timeout", line.run.timeout, "seconds of real time a run may take");
    app.add_option("--trace", line.run.trace, "write the story as trace events to this file");
    app.add_option("--log", line.run.log, "write the daemon's lines to this file");
    app.add_flag("--real-time", line.run.real_time,
                 "the real clock, and nothing between the daemon and its data");
}

std::vector<Scenario> chosen(const CommandLine& line) {
    std::vector<Scenario> scenarios;
    for (const std::string& file : line.files) {
        for (Scenario& scenario : read_scenarios(file)) {
            if (line.only.empty() || matches(line.only, scenario.name))
                scenarios.push_back(std::move(scenario));
        }
    }
    if (scenarios.empty()) throw Unable("no case is called \"" + line.only + "\"");
    return scenarios;
}

int demo(CommandLine& line) {
    for (Scenario& scenario : parse_scenarios(kDemoScenario, "demo.toml")) {
        if (scenario.modem != line.modem) continue;
        if (line.seed != 0) scenario.seed = line.seed;
        line.run.summary = true;
        return run_one(scenario, line.run);
    }
    throw Unable("unknown modem " + line.modem);
}

int run(CommandLine& line) {
    std::vector<Scenario> scenarios = chosen(line);
    for (Scenario& scenario : scenarios) {
        if (line.seed != 0) scenario.seed = line.seed;
    }
    line.run.summary = line.story;
    if (line.run.relay) {
        if (scenarios.size() != 1) throw Unable("name one case with --case: --relay runs no more");
        return run_one(scenarios[0], line.run);
    }
    if (scenarios.size() == 1 && line.story) return run_one(scenarios[0], line.run);
    return run_all(scenarios, line.run, line.jobs, line.quiet);
}

}  // namespace

int main(int argc, char** argv) try {
    CommandLine line;
    line.run.daemon = default_daemon();
    CLI::App app(
            "A virtual phone: runs the unmodified rvd on this machine, against a model of the "
            "modem's driver and boot loader.");
    app.require_subcommand(1);

    CLI::App* demo_command = app.add_subcommand("demo", "tell the story of a modem's life");
    demo_command->add_option("--modem", line.modem, "tq720 (integrated) or vk880 (external)");
    add_run_options(*demo_command, line);

    CLI::App* run_command = app.add_subcommand("run", "run scenarios and check what they expect");
    run_command->add_option("file", line.files, "scenario files")->required();
    run_command->add_option("--case", line.only, "only cases of this name; '*' for anything");
    run_command->add_option("--jobs", line.jobs, "how many at once");
    run_command->add_flag("--quiet", line.quiet, "name only the cases that did not hold");
    run_command->add_flag("--story", line.story, "tell the story of every case");
    run_command
            ->add_option("--notebook", line.run.notebook,
                         "with --relay: where the run keeps what it needs to go on with after a "
                         "reboot or a panic, when the same command is to be given again")
            ->default_val("/var/tmp/rvd-lab.notebook");
    run_command->add_flag("--relay", line.run.relay,
                          "run one case behind the relay module, on this machine's own kernel: "
                          "clock, disk, rights, reboots and panics are real");
    add_run_options(*run_command, line);

    CLI::App* faults_command = app.add_subcommand(
            "faults", "fail every system call of the daemon, each in every way it can fail");
    faults_command->add_option("--only", line.only,
                               "one flow; or FLOW:CALL:N:FAULT, one fault with its story");
    faults_command->add_option("--spread", line.spread, "so many of all faults, evenly chosen");
    faults_command->add_option("--jobs", line.jobs, "how many at once");
    add_run_options(*faults_command, line);

    CLI::App* soak_command = app.add_subcommand("soak", "live through pass after pass of events");
    soak_command->add_option("--passes", line.passes, "how many (10000)");
    soak_command->add_flag("--story", line.story, "tell the story");
    add_run_options(*soak_command, line);

    CLI::App* keys_command = app.add_subcommand("keys", "print what a scenario can say");

    CLI11_PARSE(app, argc, argv);
    if (keys_command->parsed()) return fputs(scenario_manual().c_str(), stdout) < 0;
    if (faults_command->parsed()) return run_faults({line.run, line.only, line.spread, line.jobs});
    if (soak_command->parsed()) {
        line.run.story = line.story;
        return run_soak(line.seed != 0 ? line.seed : time(nullptr), line.passes, line.run);
    }
    return demo_command->parsed() ? demo(line) : run(line);
} catch (const Unable& unable) {
    fprintf(stderr, "rvd-lab: %s\n", unable.what());
    return kUnable;
}

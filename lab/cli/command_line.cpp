#include "lab/cli/command_line.h"

#include <fmt/core.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <filesystem>

#include "lab/builtin.h"
#include "lab/cli/parse_error.h"

namespace rvd::lab {

namespace {

std::string default_daemon() {
    std::error_code none;
    return std::filesystem::read_symlink("/proc/self/exe", none).parent_path() / "rvd";
}

// The daemon's version stands in its binary.
std::string versions(const std::string& daemon) {
    const std::string bytes = read_file(daemon);
    const size_t at = bytes.find("RVD-V");
    return fmt::format("rvd-lab {}\nrvd {}", kVersion,
                       at == bytes.npos ? "not found at " + daemon : bytes.c_str() + at);
}

void add_run_options(CLI::App& app, CommandLine& line) {
    app.add_option("--daemon", line.run.daemon, "the daemon's binary (rvd beside rvd-lab)")
            ->check(CLI::ExistingFile);
    app.add_option("--root", line.run.root, "keep the phone's files in this directory");
    app.add_option("--timeout", line.run.timeout, "seconds of real time a run may take (60)")
            ->check(CLI::Range(1, 1'000'000));
    app.add_option("--color", line.color, "colours in a story: auto, always or never (auto)")
            ->check(CLI::IsMember({"auto", "always", "never"}));
    app.add_option("--trace", line.trace, "write the story as trace events to this file");
    app.add_option("--picture", line.picture, "draw the story as a sequence into this file (SVG)");
    app.add_option("--log", line.log, "write the daemon's lines to this file");
}

void add_seed(CLI::App& app, CommandLine& line) {
    constexpr int64_t kLargest = 1'000'000'000'000'000'000;  // what is larger would be cut to fit
    app.add_option("--seed", line.seed, "seed of all content, instead of the scenario's")
            ->check(CLI::Range(-kLargest, kLargest));
}

void add_jobs(CLI::App& app, CommandLine& line) {
    app.add_option("--jobs", line.jobs, "how many at once (all processors)")
            ->check(CLI::Range(1, 4096));
}

void add_reporting(CLI::App& app, CommandLine& line) {
    app.add_flag("--json", line.reporting.json, "results as JSON, instead of text");
    app.add_option("--junit", line.junit, "write results as JUnit XML to this file");
}

void add_files(CLI::App& app, CommandLine& line) {
    app.add_option("file", line.files, "scenario files")->required()->check(CLI::ExistingFile);
}

void add_demo(CLI::App& app, CommandLine& line) {
    app.add_option("--modem", line.modem, "tq720 (integrated) or vk880 (external)")
            ->check(CLI::IsMember({"tq720", "vk880"}));
    app.add_option("--firmware", line.firmware, "boot this image, instead of one that is made up")
            ->check(CLI::ExistingFile);
    app.add_flag("--brief", line.brief, "only the chapters, and what matters most in them");
    add_seed(app, line);
    add_run_options(app, line);
}

void add_run(CLI::App& app, CommandLine& line) {
    add_files(app, line);
    app.add_option("--case", line.only, "only cases of this name; '*' for anything");
    app.add_flag("--list", line.list, "name the cases, instead of running them");
    app.add_flag("--quiet", line.reporting.quiet, "name only the cases that fail");
    app.add_flag("--story", line.reporting.story, "tell the story of every case");
    app.add_flag("--real-time", line.run.real_time,
                 "the real clock, and nothing between the daemon and its data");
    app.add_flag("--device", line.run.device,
                 "on this machine's own kernel, as root, with character devices in user space: "
                 "clock, disk, log and rights are real");
    app.add_option("--prepare", line.run.prepare,
                   "with --device: a command that gets the phone's root before the daemon starts");
    app.add_option("--notebook", line.run.notebook,
                   "with --device: the machine is the phone, so its clock is set, and a panic or a "
                   "reboot takes it down; what the run goes on with, when the same command is "
                   "given again, is in this file");
    app.add_option("--jitter", line.run.jitter,
                   "microseconds between two reads of what the daemon says; no story may change")
            ->check(CLI::Range(0, 1'000'000));
    add_reporting(app, line);
    add_jobs(app, line);
    add_seed(app, line);
    add_run_options(app, line);
}

void add_toc(CLI::App& app, CommandLine& line) {
    app.add_option("image", line.firmware, "the modem's firmware partition, or a copy of it")
            ->required()
            ->check(CLI::ExistingFile);
    app.add_flag("--json", line.reporting.json, "as JSON, instead of text");
}

void add_faults(CLI::App& app, CommandLine& line) {
    app.add_option("--only", line.faults.only,
                   "one flow; or FLOW:CALL:N:FAULT, one fault with its story");
    app.add_option("--kind", line.faults.kind,
                   "fail each call; kill the daemon before and after it; cut the phone's power")
            ->check(CLI::IsMember({"fail", "kill", "cut"}));
    app.add_option("--spread", line.faults.spread, "so many of all faults, evenly chosen")
            ->check(CLI::Range(1, 1'000'000));
    app.add_flag("--list", line.faults.list, "name the faults, instead of running them");
    add_reporting(app, line);
    add_jobs(app, line);
    add_run_options(app, line);
}

void add_soak(CLI::App& app, CommandLine& line) {
    app.add_option("--passes", line.soak.passes,
                   "how many (10000; of a story that is told again, 10)")
            ->check(CLI::Range(1, 100'000'000));
    app.add_option(
               "--shape", line.soak.shape,
               "what the passes are made of: mixed, of everything; storm, of crashes on a disk "
               "that fills; flap, of states that follow too fast; liar, of a boot loader's lies")
            ->check(CLI::IsMember({"mixed", "storm", "flap", "liar"}));
    app.add_flag("--verify-replay{1000}", line.soak.replays,
                 "tell the same story so often, beside two busy loops, and compare");
    app.add_flag("--story", line.reporting.story, "tell the story");
    add_reporting(app, line);
    add_seed(app, line);
    add_run_options(app, line);
}

void add_keys(CLI::App& app, CommandLine& line) {
    app.add_flag("--json", line.reporting.json, "as a JSON schema, which editors use");
}

constexpr struct {
    const char *name, *help;
    void (*add_options)(CLI::App&, CommandLine&);
    int (*command)(CommandLine&);
} kCommands[] = {
        {"demo", "tell the story of a modem's life", add_demo, demo},
        {"run", "run scenarios and check what they expect", add_run, run},
        {"check", "read scenarios and say what is wrong with them", add_files, check},
        {"toc", "read a firmware image's table of contents, and what each modem makes of it",
         add_toc, toc},
        {"faults", "fail every system call of the daemon, each in every way it can fail",
         add_faults, faults},
        {"soak", "live through pass after pass of events", add_soak, soak},
        {"keys", "print what a scenario can say", add_keys, keys},
};

}  // namespace

std::optional<int> parse_command_line(int argc, char** argv, CommandLine& line) {
    line.run.daemon = default_daemon();
    line.jobs = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
    CLI::App app(
            "A virtual phone: runs the unmodified rvd on this machine, against a model of the "
            "modem's driver and boot loader.");
    app.require_subcommand(0, 1);
    app.set_version_flag("--version", [&] { return versions(line.run.daemon); });
    for (const auto& each : kCommands) {
        CLI::App* const command = app.add_subcommand(each.name, each.help);
        command->callback([&] { line.command = each.command; });
        each.add_options(*command, line);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);
        fmt::print(stderr, "rvd-lab: {}\n", parse_error_message(app, error));
        return kError;
    }
    if (line.command != nullptr) return {};
    fmt::print("{}", app.help());
    return kPassed;
}

}  // namespace rvd::lab

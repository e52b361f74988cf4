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
    std::error_code ignored;
    return std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path() / "rvd";
}

// The daemon's version is a string in its binary.
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
    app.add_option("--picture", line.picture,
                   "draw the story as a sequence diagram into this file (SVG)");
    app.add_option("--log", line.log, "write the daemon's lines to this file");
}

void add_seed(CLI::App& app, CommandLine& line) {
    constexpr int64_t kLargest = 1'000'000'000'000'000'000;  // CLI11 clamps larger numbers silently
    app.add_option("--seed", line.seed, "seed of all content, instead of the scenario's")
            ->check(CLI::Range(-kLargest, kLargest));
}

void add_jobs(CLI::App& app, CommandLine& line) {
    app.add_option("--jobs", line.jobs, "how many runs at once (number of processors)")
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
    app.add_option("--firmware", line.firmware,
                   "boot this firmware image instead of a generated one")
            ->check(CLI::ExistingFile);
    app.add_flag("--brief", line.brief, "print only chapters and their most important lines");
    add_seed(app, line);
    add_run_options(app, line);
}

void add_run(CLI::App& app, CommandLine& line) {
    add_files(app, line);
    app.add_option("--case", line.only, "run only cases whose name matches; '*' matches anything");
    app.add_flag("--list", line.list, "print the names of the cases instead of running them");
    app.add_flag("--quiet", line.reporting.quiet, "print only cases that fail");
    app.add_flag("--story", line.reporting.story, "print the story of every case");
    app.add_flag("--real-time", line.run.real_time,
                 "use the real clock and do not intercept data transfers, to measure throughput");
    app.add_flag("--device", line.run.device,
                 "run on this machine's own kernel, as root, with character devices in user space: "
                 "clock, disk, log and capabilities are real");
    app.add_option(
            "--prepare", line.run.prepare,
            "with --device: run this command with the phone's root before the daemon starts");
    app.add_option(
            "--notebook", line.run.notebook,
            "with --device: the machine is the phone: its clock is set, and it really panics "
            "and reboots; the same command then continues the run from this file");
    app.add_option("--jitter", line.run.jitter,
                   "delay each read of the daemon's output by so many microseconds; no story may "
                   "change")
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
                   "fail each call; kill the daemon before and after it; or cut the phone's power")
            ->check(CLI::IsMember({"fail", "kill", "cut"}));
    app.add_option("--spread", line.faults.spread, "run only this many faults, evenly chosen")
            ->check(CLI::Range(1, 1'000'000));
    app.add_flag("--list", line.faults.list,
                 "print the names of the faults instead of running them");
    add_reporting(app, line);
    add_jobs(app, line);
    add_run_options(app, line);
}

void add_soak(CLI::App& app, CommandLine& line) {
    app.add_option("--passes", line.soak.passes,
                   "number of passes (10000; 10 with --verify-replay)")
            ->check(CLI::Range(1, 100'000'000));
    app.add_option(
               "--shape", line.soak.shape,
               "mixed: everything; storm: crashes on a disk that fills; flap: state changes too "
               "fast to read; liar: a boot loader that sends random words and lengths")
            ->check(CLI::IsMember({"mixed", "storm", "flap", "liar"}));
    app.add_flag("--verify-replay{1000}", line.soak.replays,
                 "run the same soak this often, beside two busy loops, and compare the stories");
    app.add_flag("--story", line.reporting.story, "print the story");
    add_reporting(app, line);
    add_seed(app, line);
    add_run_options(app, line);
}

void add_keys(CLI::App& app, CommandLine& line) {
    app.add_flag("--json", line.reporting.json, "as a JSON schema, for editors");
}

constexpr struct {
    const char *name, *help;
    void (*add_options)(CLI::App&, CommandLine&);
    int (*command)(CommandLine&);
} kCommands[] = {
        {"demo", "tell the story of a modem's life", add_demo, demo},
        {"run", "run scenarios and check what they expect", add_run, run},
        {"check", "read scenarios without running them and report errors", add_files, check},
        {"toc", "print a firmware image's table of contents and how each modem would load it",
         add_toc, toc},
        {"faults", "fail every system call of the daemon, each in every way it can fail",
         add_faults, faults},
        {"soak", "run random events and faults, pass after pass, on one phone", add_soak, soak},
        {"keys", "print all keys of a scenario", add_keys, keys},
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

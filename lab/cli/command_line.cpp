#include "lab/cli/command_line.h"

#include <fmt/core.h>
#include <stdio.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <filesystem>

#include "lab/builtin.h"
#include "lab/campaign/workers.h"
#include "lab/cli/complaint.h"

namespace rvd::lab {

namespace {

using Command = CommandLine::Command;

// The word is a whole number within these bounds.
CLI::Validator whole(int64_t least, int64_t most) {
    const auto check = [=](const std::string& word) -> std::string {
        int64_t value = 0;
        const char* const end = word.data() + word.size();
        const auto [at, error] = std::from_chars(word.data(), end, value);
        if (error == std::errc() && at == end && value >= least && value <= most) return "";
        return "\"" + word + "\" is not a whole number from " + std::to_string(least) + " to " +
               std::to_string(most);
    };
    return {check, ""};
}

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
            ->check(whole(1, 1'000'000));
    app.add_option("--color", line.color, "colours in a story: auto, always or never (auto)")
            ->check(CLI::IsMember({"auto", "always", "never"}));
    app.add_option("--trace", line.trace, "write the story as trace events to this file");
    app.add_option("--picture", line.picture, "draw the story as a sequence into this file (SVG)");
    app.add_option("--log", line.log, "write the daemon's lines to this file");
}

void add_seed(CLI::App& app, CommandLine& line) {
    app.add_option("--seed", line.seed, "seed of all content, instead of the scenario's")
            ->check(whole(INT64_MIN, INT64_MAX));
}

void add_jobs(CLI::App& app, CommandLine& line) {
    app.add_option("--jobs", line.jobs, "how many at once (all processors)")->check(whole(1, 4096));
}

void add_reporting(CLI::App& app, CommandLine& line) {
    app.add_flag("--json", line.json, "results as JSON, instead of text");
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
    app.add_flag("--quiet", line.quiet, "name only the cases that fail");
    app.add_flag("--story", line.story, "tell the story of every case");
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
            ->check(whole(0, 1'000'000));
    add_reporting(app, line);
    add_jobs(app, line);
    add_seed(app, line);
    add_run_options(app, line);
}

void add_toc(CLI::App& app, CommandLine& line) {
    app.add_option("image", line.firmware, "the modem's firmware partition, or a copy of it")
            ->required()
            ->check(CLI::ExistingFile);
    app.add_flag("--json", line.json, "as JSON, instead of text");
}

void add_faults(CLI::App& app, CommandLine& line) {
    app.add_option("--only", line.only, "one flow; or FLOW:CALL:N:FAULT, one fault with its story");
    app.add_option("--kind", line.kind,
                   "fail each call; kill the daemon before and after it; cut the phone's power")
            ->check(CLI::IsMember({"fail", "kill", "cut"}));
    app.add_option("--spread", line.spread, "so many of all faults, evenly chosen")
            ->check(whole(1, 1'000'000));
    app.add_flag("--list", line.list, "name the faults, instead of running them");
    add_reporting(app, line);
    add_jobs(app, line);
    add_run_options(app, line);
}

void add_soak(CLI::App& app, CommandLine& line) {
    app.add_option("--passes", line.passes, "how many (10000; of a story that is told again, 10)")
            ->check(whole(1, 100'000'000));
    app.add_option(
               "--shape", line.shape,
               "what the passes are made of: mixed, of everything; storm, of crashes on a disk "
               "that fills; flap, of states that follow too fast; liar, of a boot loader's lies")
            ->check(CLI::IsMember({"mixed", "storm", "flap", "liar"}));
    app.add_flag("--verify-replay{1000}", line.replays,
                 "tell the same story so often, beside two busy loops, and compare");
    app.add_flag("--story", line.story, "tell the story");
    add_reporting(app, line);
    add_seed(app, line);
    add_run_options(app, line);
}

}  // namespace

std::optional<int> parse_command_line(int argc, char** argv, CommandLine& line) {
    line.run.daemon = default_daemon();
    line.jobs = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
    CLI::App app(
            "A virtual phone: runs the unmodified rvd on this machine, against a model of the "
            "modem's driver and boot loader.");
    app.require_subcommand(0, 1);
    app.set_version_flag("--version", [&] { return versions(line.run.daemon); });
    const auto add = [&](Command command, const char* name, const char* help) {
        CLI::App* sub = app.add_subcommand(name, help);
        sub->callback([&line, command] { line.command = command; });
        return sub;
    };
    add_demo(*add(Command::demo, "demo", "tell the story of a modem's life"), line);
    add_run(*add(Command::run, "run", "run scenarios and check what they expect"), line);
    add_files(*add(Command::check, "check", "read scenarios and say what is wrong with them"),
              line);
    add_toc(*add(Command::toc, "toc",
                 "read a firmware image's table of contents, and what each modem makes of it"),
            line);
    add_faults(*add(Command::faults, "faults",
                    "fail every system call of the daemon, each in every way it can fail"),
               line);
    add_soak(*add(Command::soak, "soak", "live through pass after pass of events"), line);
    add(Command::keys, "keys", "print what a scenario can say")
            ->add_flag("--json", line.json, "as a JSON schema, which editors use");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);
        fprintf(stderr, "rvd-lab: %s\n", complaint(app, error).c_str());
        return kRefused;
    }
    if (line.command != Command::none) return {};
    fputs(app.help().c_str(), stdout);
    return kHeld;
}

}  // namespace rvd::lab

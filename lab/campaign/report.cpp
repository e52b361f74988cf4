#include "lab/campaign/report.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "lab/builtin.h"

namespace rvd::lab {

namespace {

constexpr auto kOnTerminal = std::chrono::milliseconds(200);
constexpr auto kElsewhere = std::chrono::seconds(30);

const char* word_for(int status) {
    return status == kPassed ? "PASS" : status == kFailed ? "FAIL" : "ERROR";
}

std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        const bool shown = c == '\n' || (c >= ' ' && c < 0x7F);
        const bool marked = c == '&' || c == '<' || c == '"';
        out += marked ? fmt::format("&#{};", static_cast<int>(c)) : std::string(1, shown ? c : '?');
    }
    return out;
}

void print_violations(const Outcome& outcome) {
    for (const std::string& violation : outcome.violations)
        fmt::print("  FAIL: {}\n", violation);
}

}  // namespace

void Report::print(const Outcome& outcome) const {
    if (to_.json || (to_.quiet && outcome.status == kPassed)) return;
    fmt::print("{:<5} {}\n", word_for(outcome.status), outcome.name);
    if (outcome.status != kPassed || to_.story) fmt::print("{}", outcome.output);
    if (outcome.status != kError) print_violations(outcome);
    fflush(stdout);
    if (outcome.status == kError) fmt::print(stderr, "rvd-lab: {}\n", outcome.violations.at(0));
}

void Report::add(Outcome& outcome) {
    if (outcome.status == kUnsupported) throw_if_not_run(outcome);
    const bool passed = outcome.status == kPassed;
    (passed ? passed_ : failed_)++;
    if (!passed && status_ != kFailed) status_ = outcome.status;
    print(outcome);
    if (passed) outcome.output.clear();
    outcome.record = {};
    outcomes_.push_back(std::move(outcome));
}

std::string Report::junit() const {
    std::string xml = fmt::format(
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<testsuite name=\"rvd-lab {}\" tests=\"{}\" failures=\"{}\">\n",
            command_, outcomes_.size(), failed_);
    for (const Outcome& outcome : outcomes_) {
        xml += fmt::format("<testcase classname=\"{}\" name=\"{}\" time=\"{:.3f}\">",
                           escaped(outcome.suite), escaped(outcome.name), outcome.spent.count());
        if (outcome.status != kPassed) {
            xml += fmt::format("<{0}>{1}</{0}><system-out>{2}</system-out>",
                               outcome.status == kFailed ? "failure" : "error",
                               escaped(fmt::format("{}\n", fmt::join(outcome.violations, "\n"))),
                               escaped(outcome.output));
        }
        xml += "</testcase>\n";
    }
    return xml + "</testsuite>\n";
}

int Report::finish(int signal, const nlohmann::json& counters) {
    if (to_.junit) to_.junit.write(junit());
    if (to_.json) {
        nlohmann::json all = counters;
        all.update({{"command", command_},
                    {"version", kVersion},
                    {"passed", passed_},
                    {"failed", failed_},
                    {"interrupted", signal != 0}});
        for (const Outcome& outcome : outcomes_) {
            all["runs"].push_back({{"suite", outcome.suite},
                                   {"name", outcome.name},
                                   {"result", word_for(outcome.status)},
                                   {"seconds", outcome.spent.count()},
                                   {"wrong", outcome.violations}});
        }
        fmt::print("{}\n", all.dump(1, ' ', false, nlohmann::json::error_handler_t::replace));
    } else {
        fmt::print("{} passed, {} failed{}\n", passed_, failed_, signal ? "; interrupted" : "");
    }
    return signal != 0 ? kSignalBase + signal : status_;
}

Progress::Progress(std::string what, size_t total)
    : what_(std::move(what)),
      total_(total),
      terminal_(is_capable_terminal(STDERR_FILENO)),
      start_(Clock::now()),
      last_(start_) {}

Progress::~Progress() {
    if (terminal_ && shown_) fmt::print(stderr, "\r\033[K");
}

void Progress::show(size_t done, size_t failed) {
    const auto now = Clock::now();
    if (now - last_ < (terminal_ ? Clock::duration(kOnTerminal) : kElsewhere)) return;
    last_ = now;
    shown_ = true;
    const std::chrono::duration<double> each =
            (now - start_) / std::max<double>(1, static_cast<double>(done));
    const auto left = static_cast<int64_t>(each.count() * static_cast<double>(total_ - done));
    fmt::print(stderr, "{}{} of {} {}, {} failed, {}:{:02}:{:02} left{}", terminal_ ? "\r" : "",
               done, total_, what_, failed, left / 3600, left / 60 % 60, left % 60,
               terminal_ ? "\033[K" : "\n");
}

int run_all(const std::vector<Job>& runs, int jobs, const ReportOptions& reporting) {
    Report report("run", reporting);
    const int signal = run_each(
            runs.size(), jobs, [&](size_t i) { return runs[i]; },
            [&](size_t, Outcome& outcome) { report.add(outcome); });
    return report.finish(signal, nlohmann::json::object());
}

int run_one(Job job) {
    job.direct = job.options.summary = true;
    int status = kPassed;
    const auto done = [&](size_t, Outcome& outcome) {
        throw_if_not_run(outcome);
        status = outcome.status;
        if (status > kFailed) return;
        print_violations(outcome);
        fmt::print("{}\n", status == kPassed ? "PASS: all expected events occurred" : "FAIL");
    };
    const int signal = run_each(
            1, 1, [&](size_t) { return job; }, done);
    return signal != 0 ? kSignalBase + signal : status;
}

}  // namespace rvd::lab

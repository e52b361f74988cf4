#include "lab/campaign/report.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "lab/builtin.h"

namespace rvd::lab {

namespace {

const char* word_for(int status) {
    return status == kHeld ? "PASS" : status == kNotHeld ? "FAIL" : "ERROR";
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
    if (to_.json || (to_.quiet && outcome.status == kHeld)) return;
    fmt::print("{:<5} {}\n", word_for(outcome.status), outcome.name);
    if (outcome.status != kHeld || to_.story) fmt::print("{}", outcome.output);
    if (outcome.status != kRefused) print_violations(outcome);
    fflush(stdout);
    if (outcome.status == kRefused) fmt::print(stderr, "rvd-lab: {}\n", outcome.violations.at(0));
}

void Report::add(Outcome& outcome) {
    if (outcome.status == kForbidden) rethrow(outcome);
    const bool held = outcome.status == kHeld;
    (held ? passed_ : failed_)++;
    if (!held && status_ != kNotHeld) status_ = outcome.status;
    print(outcome);
    if (held) outcome.output.clear();
    outcome.conduct = {};
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
        if (outcome.status != kHeld) {
            xml += fmt::format("<{0}>{1}</{0}><system-out>{2}</system-out>",
                               outcome.status == kNotHeld ? "failure" : "error",
                               escaped(fmt::format("{}\n", fmt::join(outcome.violations, "\n"))),
                               escaped(outcome.output));
        }
        xml += "</testcase>\n";
    }
    return xml + "</testsuite>\n";
}

int Report::finish(int signal, const nlohmann::json& figures) {
    if (to_.junit) to_.junit.write(junit());
    if (to_.json) {
        nlohmann::json all = figures;
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
    return signal != 0 ? kSignal + signal : status_;
}

int run_all(const std::vector<Job>& runs, int jobs, const Reporting& reporting) {
    Report report("run", reporting);
    size_t started = 0;
    const auto next = [&]() -> std::optional<Job> {
        if (started == runs.size()) return {};
        return runs[started++];
    };
    const int signal = run_each(next, jobs, [&](Outcome& outcome) { report.add(outcome); });
    return report.finish(signal, nlohmann::json::object());
}

int tell_one(Job job) {
    job.direct = job.options.summary = true;
    Outcome outcome;
    if (const int signal = run_one(job, outcome)) return kSignal + signal;
    rethrow(outcome);
    if (outcome.status > kNotHeld) return outcome.status;
    print_violations(outcome);
    fmt::print("{}\n", outcome.status == kHeld ? "PASS: all expected events occurred" : "FAIL");
    return outcome.status;
}

}  // namespace rvd::lab

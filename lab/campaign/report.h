// What the runs of a command come to: how far it is, each as it ends, and all of them at its end,
// for people or for programs.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <vector>

#include "lab/campaign/work_directory.h"
#include "lab/campaign/workers.h"

namespace rvd::lab {

struct ReportOptions {
    bool json = false;   // to standard output, instead of text
    bool quiet = false;  // text of those alone that fail
    bool story = false;  // the story of those that pass, too
    OutputFile junit;
};

class Report {
  public:
    Report(std::string command, ReportOptions to) : command_(std::move(command)), to_(to) {}

    void add(Outcome& outcome);
    size_t failed() const { return failed_; }

    // Writes everything out, `figures` with it, and returns the exit status. A `signal` is what
    // interrupted the command.
    int finish(int signal, const nlohmann::json& counters);

  private:
    void print(const Outcome& outcome) const;
    std::string junit() const;

    std::string command_;
    ReportOptions to_;
    std::vector<Outcome> outcomes_;
    size_t passed_ = 0, failed_ = 0;
    int status_ = kPassed;
};

// How far a long command is, on standard error: a line that is renewed on a terminal, elsewhere one
// every half a minute.
class Progress {
  public:
    // `what` is counted: "faults".
    Progress(std::string what, size_t total);
    ~Progress();

    void show(size_t done, size_t failed);

  private:
    using Clock = std::chrono::steady_clock;

    const std::string what_;
    const size_t total_;
    const bool terminal_;
    const Clock::time_point start_;
    Clock::time_point last_;
    bool shown_ = false;
};

// Runs all, several at once, with a line for each and the story of those that fail. Returns the
// exit status.
int run_all(const std::vector<Job>& runs, int jobs, const ReportOptions& reporting);

// Runs one, with its story as it happens. Returns the exit status.
int run_one(Job job);

}  // namespace rvd::lab

// Reports of a command's runs: progress, each result, and the totals, as text, JSON or JUnit XML.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <vector>

#include "lab/campaign/work_directory.h"
#include "lab/campaign/workers.h"

namespace rvd::lab {

struct ReportOptions {
    bool json = false;   // instead of text
    bool quiet = false;  // print failed runs only
    bool story = false;  // print the story of passed runs, too
    OutputFile junit;
};

class Report {
  public:
    Report(std::string command, ReportOptions to) : command_(std::move(command)), to_(to) {}

    void add(Outcome& outcome);
    size_t failed() const { return failed_; }

    // Writes the totals and returns the exit status. `counters` is added to the JSON; `signal` is
    // the one that interrupted the command, or 0.
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

// Progress of a long command on standard error: one line that is updated on a terminal, otherwise a
// new line every 30 s.
class Progress {
  public:
    // `what` is the plural of what is counted: "faults".
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

// Runs several at once and prints a line for each and the story of failed ones. Returns the exit
// status.
int run_all(const std::vector<Job>& runs, int jobs, const ReportOptions& reporting);

// Runs one job and prints its story as it happens. Returns the exit status.
int run_one(Job job);

}  // namespace rvd::lab

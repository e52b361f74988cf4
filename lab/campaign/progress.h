// How far a long command is, on standard error: a line that is renewed on a terminal, elsewhere one
// every half a minute.
#pragma once

#include <chrono>
#include <string>

namespace rvd::lab {

class Progress {
  public:
    // `what` is counted: "faults".
    Progress(std::string what, size_t total);
    ~Progress();

    void show(size_t done, size_t failed);

  private:
    using Clock = std::chrono::steady_clock;

    std::string what_;
    size_t total_;
    bool terminal_;
    Clock::time_point start_, last_;
    bool shown_ = false;
};

}  // namespace rvd::lab

// One run of one scenario, from an empty phone to the verdict.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "lab/campaign/work_directory.h"
#include "lab/run/record.h"
#include "lab/run/timeline.h"

namespace rvd::lab {

// Follows a run, may change it, and checks its result. The default checks the scenario's
// expectations.
class RunController {
  public:
    virtual ~RunController() = default;
    virtual void begin(RunContext& run) { run_ = &run; }
    virtual void on_call(const std::string& /*name*/, const std::string& /*path*/, int /*fd*/) {}
    virtual void on_line(const std::string& /*text*/) {}
    virtual void on_wait() {}  // the daemon waits for the modem; called before the timeline
    virtual void on_fault(const Fault&) {}
    virtual void check(RunRecord& record);

  protected:
    template <class... Parts>
    void violation(const Parts&... parts) {
        run_->story.violation(parts...);
    }

    RunContext* run_ = nullptr;
};

struct RunOptions {
    std::string daemon;  // the binary
    std::string root;    // an existing directory to build the phone's root in
    bool keep = false;   // keep its files
    OutputFile trace, picture, log;
    bool real_time = false;
    bool device = false;   // on this machine's own kernel, with character devices
    std::string prepare;   // a command to run with the phone's root before the daemon starts
    std::string notebook;  // file that keeps the run's state over a reboot of the machine; "": the
                           // machine is not the phone and stays up
    bool story = true;     // print the story
    StoryStyle style;
    bool summary = false;       // print transfers and files at the end
    int timeout = 60;           // seconds of real time
    int jitter = 0;             // microseconds of delay before each read
    bool record_calls = false;  // intercept and record every call
    std::shared_ptr<RunController> controller = std::make_shared<RunController>();
};

// Thrown when this machine is about to reboot; run_scenario() with the same notebook continues.
struct Reboots {};

struct Result {
    std::vector<std::string> violations;  // empty: passed
    RunRecord record;
};

// Moves this process to new namespaces, so call it in a child. Throws Error.
Result run_scenario(const Scenario& scenario, const RunOptions& options);

}  // namespace rvd::lab

// A run with one fault, compared with the baseline: the run of the same flow without it. The fault
// makes a call fail, kills the daemon, or cuts the phone's power. After a kill or a cut the daemon
// is started again, the first event of the timeline is repeated, and the flow continues to its end.
//
// After every fault:
// - the run ends like the baseline, not much later, and leaves no more descriptors open;
// - files that were complete (after a cut: reported as saved) are unchanged;
// - saved files are prefixes of the modem's data.
// After a kill or a cut also:
// - at least one of each of those files is complete, and no ".new" file is left;
// - boots are counted, and the modem's final state is the baseline's;
// - whenever the daemon waits for the modem, the wake lock is released, and a fetched silent-reset
//   record has been handed back complete, once (at most twice in the pass of the stop), and
//   removed.
#pragma once

#include <optional>

#include "lab/campaign/disk.h"
#include "lab/run/run.h"

namespace rvd::lab {

enum class FaultKind { fail, kill, cut };

class Trial : public RunController {
  public:
    // `survival` only matters for a cut.
    Trial(FaultKind kind, Disk::Survival survival, RunRecord baseline)
        : kind_(kind), survival_(survival), baseline_(std::move(baseline)) {}

    void begin(RunContext& run) override;
    void on_call(const std::string& name, const std::string& path, int fd) override;
    void on_line(const std::string& text) override;
    void on_wait() override;
    void on_fault(const Fault& fault) override;
    void check(RunRecord& record) override;

  private:
    void stop();
    void cut_power();
    void kill_daemon();
    Files intact_reported_files() const;
    void repeat_first_event();

    std::string record_path() const;
    int64_t handed_back() const;
    void check_end(const RunRecord& record);
    void check_complete(const Files& files);
    void check_records();
    void check_counter();

    const FaultKind kind_;
    const Disk::Survival survival_;
    const RunRecord baseline_;
    std::optional<Disk> disk_;
    Files reported_;       // content of each file when it was reported as saved
    Files before_;         // complete when the fault fired
    int64_t boots_ = 0;    // counted by the daemon before the stop
    size_t lines_ = 0;     // logged before the stop
    size_t requests_ = 0;  // made before the current pass
    bool stopped_in_pass_ = false;
    bool locked_ = false;  // the wake lock is held
};

}  // namespace rvd::lab

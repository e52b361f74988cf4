// A run in which one call fails, or in which the daemon is killed or the phone loses its power at
// that call, held against the clean run of its flow. After a kill or a cut the daemon is started
// again, the modem does once more what it did first, and the flow is played to its end.
//
// The run ends as the clean one and not much later, leaves nothing more open, and complete files
// (after a cut, those reported as saved) are as they were. What was saved of the modem is true.
// After a kill or a cut one of each of its files is also whole, no ".new" file is left, boots were
// counted, and the modem is in the same state. Whenever the daemon waits for the modem then, the
// wake lock is released, and a silent-reset record has reached the driver whole, once for each time
// that it was fetched, or twice in the pass of the stop, and is removed.
#pragma once

#include <optional>

#include "lab/campaign/disk.h"
#include "lab/run/run.h"

namespace rvd::lab {

enum class FaultKind { fail, kill, cut };

class Trial : public RunController {
  public:
    // `survives` is for a cut.
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
    void violation(const std::string& text) { run_->story.violation(text); }

    const FaultKind kind_;
    const Disk::Survival survival_;
    const RunRecord baseline_;
    std::optional<Disk> disk_;
    Files reported_;       // as the daemon has reported them
    Files before_;         // what was complete when the fault came
    int64_t boots_ = 0;    // as the daemon had counted them at the stop
    size_t lines_ = 0;     // logged before the stop
    size_t requests_ = 0;  // made before the pass that runs
    bool stopped_in_pass_ = false;
    bool locked_ = false;  // the wake lock is held
};

}  // namespace rvd::lab

// A run in which the daemon is killed, or the phone loses its power, at one call: the daemon is
// started again, the modem does once more what it did first, and the flow is played to its end.
// Then the run has ended as the clean one, the modem is in the same state, complete files (after a
// cut, those reported as saved) are as they were, one of each file from the modem is whole, and no
// ".new" file is left; records reached the driver whole, boots were counted, and the wake lock is
// released.
#pragma once

#include <memory>

#include "lab/campaign/disk.h"
#include "lab/run/run.h"

namespace rvd::lab {

class Stopping : public Conductor {
  public:
    // Without a way for the disk the daemon alone is killed.
    Stopping(const Conduct& clean, std::optional<Disk::Unflushed> power)
        : clean_(clean), power_(power) {}

    void begin(Play& play) override;
    void call(const std::string& name, const std::string& path, int fd) override;
    void line(const std::string& text) override;
    void fault(const Fault& fault) override;
    void judge(Conduct& conduct) override;

  private:
    void stop();
    void check_counter();
    void check_wake_lock();
    void check_records(const Conduct& conduct);

    const Conduct& clean_;
    const std::optional<Disk::Unflushed> power_;
    Play* play_ = nullptr;
    std::optional<Disk> disk_;
    Files saved_;        // as the daemon has reported them
    Files before_;       // what was complete when it was stopped
    int64_t boots_ = 0;  // as the daemon had counted them then
    size_t lines_ = 0;   // logged by then
};

}  // namespace rvd::lab

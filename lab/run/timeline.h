// What happens to the phone in a run, one event after the other.
#pragma once

#include "lab/modem/modem.h"
#include "lab/phone/phone.h"
#include "lab/run/stage.h"

namespace rvd::lab {

class Timeline {
  public:
    Timeline(const Scenario& scenario, const Phone& phone, RunStage& stage, Modem& modem,
             Story& story, Time start)
        : scenario_(scenario),
          phone_(phone),
          stage_(stage),
          modem_(modem),
          story_(story),
          start_(start) {}

    void begin() { arm(); }

    // Continues at `position` after a reboot, or after a panic.
    void resume(size_t position, bool panicked);

    // These trigger events: the daemon begins to wait, the device goes to upload mode (returns
    // whether an event waited for that), a line ("line") or a request ("request").
    void waits();
    bool upload();
    void fact(const std::string& kind, const std::string& text);

    // The index of the next event.
    size_t position() const { return at_; }
    bool finished() const { return at_ == scenario_.timeline.size(); }

  private:
    const Event& next() const { return scenario_.timeline[at_]; }
    bool pending() const { return !finished() && !triggered_; }
    void arm();
    void trigger();
    void happen();
    void apply(const Event& event);

    const Scenario& scenario_;
    const Phone& phone_;
    RunStage& stage_;
    Modem& modem_;
    Story& story_;
    const Time start_;
    size_t at_ = 0;
    int64_t said_ = 0;  // how often what the next event waits for has come
    bool triggered_ = false;
};

}  // namespace rvd::lab

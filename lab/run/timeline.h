// What happens to the phone in a run, one event after the other.
#pragma once

#include "lab/run/play.h"

namespace rvd::lab {

class Timeline : private Play {
  public:
    // `start` is when the run has begun.
    Timeline(const Play& play, Time start) : Play(play), start_(start) {}

    void begin() { arm(); }

    // Continues at `position` after a reboot, or after a panic.
    void resume(size_t position, bool panicked);

    // These trigger events: the daemon begins to wait, the device goes to upload mode (returns
    // whether an event waited for that), a line, a request.
    void waits();
    bool upload();
    void line(const std::string& text) { fact(&Event::line, text); }
    void request(const std::string& text) { fact(&Event::request, text); }

    // The index of the next event.
    size_t position() const { return at_; }
    bool finished() const { return at_ == scenario.timeline.size(); }

  private:
    const Event& next() const { return scenario.timeline[at_]; }
    bool pending() const { return !finished() && !triggered_; }
    void fact(std::string Event::*wanted, const std::string& text);
    void arm();
    void trigger();
    void happen();
    void apply(const Event& event);

    const Time start_;
    size_t at_ = 0;
    int64_t said_ = 0;  // how often what the next event waits for has come
    bool triggered_ = false;
};

}  // namespace rvd::lab

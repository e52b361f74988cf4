// What happens to the phone in a run, one event after the other.
#pragma once

#include "lab/run/context.h"

namespace rvd::lab {

class Timeline : private RunContext {
  public:
    // `start` is when the run has begun.
    Timeline(const RunContext& run, Time start) : RunContext(run), start_(start) {}

    void begin() { arm(); }

    // Continues at `position` after a reboot, or after a panic.
    void resume(size_t position, bool panicked);

    // These trigger events: the daemon begins to wait, the device goes to upload mode (returns
    // whether an event waited for that), a line, a request.
    void on_wait();
    bool on_upload();
    void on_line(const std::string& text) { match(&Event::line, text); }
    void on_request(const std::string& text) { match(&Event::request, text); }

    // The index of the next event.
    size_t position() const { return at_; }
    bool finished() const { return at_ == scenario.timeline.size(); }

  private:
    const Event& next() const { return scenario.timeline[at_]; }
    bool pending() const { return !finished() && !triggered_; }
    void match(std::string Event::*wanted, const std::string& text);
    void arm();
    void trigger();
    void fire();
    void apply(const Event& event);

    const Time start_;
    size_t at_ = 0;
    int64_t matched_ = 0;  // how often what the next event waits for has come
    bool triggered_ = false;
};

}  // namespace rvd::lab

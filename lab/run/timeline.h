// The scenario's events, and what they and the other parts of a run share.
#pragma once

#include "lab/modem/modem.h"
#include "lab/phone/phone.h"
#include "lab/run/backend.h"
#include "lab/run/story.h"
#include "lab/scenario/scenario.h"

namespace rvd::lab {

class Timeline;

struct RunContext {
    Scenario& scenario;
    const Phone& phone;
    RunBackend& backend;
    Modem& modem;
    Story& story;
    const Timeline& timeline;
};

// Each event is armed when the one before it has fired.
class Timeline : private RunContext {
  public:
    // `start` is the time at which the run began.
    Timeline(const RunContext& run, Time start) : RunContext(run), start_(start) {}

    void begin() { arm(); }

    // Continues at `position` after a reboot or panic of the machine.
    void resume(size_t position, bool panicked);

    // Trigger the next event if it waits for this. on_upload() returns whether it did.
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
    int64_t matched_ = 0;  // matches of the next event's line or request so far
    bool triggered_ = false;
};

}  // namespace rvd::lab

#include "lab/run/timeline.h"

#include <algorithm>

namespace rvd::lab {

void Timeline::resume(size_t position, bool panicked) {
    at_ = position;
    // The panic was the event that was waited for, and its reboot has happened.
    if (panicked && !finished() && next().upload) apply(scenario.timeline[at_++]);
    phone.clear_properties();
    modem.reboot();
    arm();
}

void Timeline::waits() {
    if (pending() && next().waits) trigger();
}

bool Timeline::upload() {
    const bool wanted = pending() && next().upload;
    if (wanted) trigger();
    return wanted;
}

void Timeline::fact(std::string Event::*wanted, const std::string& text) {
    if (!pending() || (next().*wanted).empty() || !matches(next().*wanted, text)) return;
    if (++said_ == next().said) trigger();
}

void Timeline::arm() {
    if (!pending() || !next().at) return;
    triggered_ = true;
    stage.later(std::max<Time>(start_ + *next().at - stage.now(), 0), [this] { happen(); });
}

void Timeline::trigger() {
    triggered_ = true;
    stage.later(next().after, [this] { happen(); });
}

void Timeline::happen() {
    const Event& event = next();
    at_++;
    triggered_ = false;
    said_ = 0;
    apply(event);
    if (event.reboot) {
        story.tell("phone", "", "reboots");
        phone.clear_properties();
        modem.reboot();
        if (!stage.reboot()) return;
    } else if (event.restart) {
        stage.start_daemon();
    }
    if (event.stop) stage.stop("stop");
    arm();
}

void Timeline::apply(const Event& event) {
    for (const auto& [name, value] : event.set) {
        story.tell("phone", "daemon", "property " + name + " = " + value);
        phone.set_property(name, value);
    }
    if (event.state) modem.change_state(static_cast<int>(*event.state));
}

}  // namespace rvd::lab

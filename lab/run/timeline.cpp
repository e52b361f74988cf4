#include "lab/run/timeline.h"

#include <algorithm>

namespace rvd::lab {

void Timeline::resume(size_t position, bool panicked) {
    at_ = position;
    // The panic was the event that was waited for, and its reboot has happened.
    if (panicked && !finished() && next().upload) apply(scenario_.timeline[at_++]);
    phone_.clear_properties();
    modem_.reboot();
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

void Timeline::fact(const std::string& kind, const std::string& text) {
    if (!pending()) return;
    const std::string& wanted = kind == "line" ? next().line : next().request;
    if (!wanted.empty() && matches(wanted, text) && ++said_ == next().said) trigger();
}

void Timeline::arm() {
    if (!pending() || !next().at) return;
    triggered_ = true;
    stage_.later(std::max<Time>(start_ + *next().at - stage_.now(), 0), [this] { happen(); });
}

void Timeline::trigger() {
    triggered_ = true;
    stage_.later(next().after, [this] { happen(); });
}

void Timeline::happen() {
    const Event& event = next();
    at_++;
    triggered_ = false;
    said_ = 0;
    apply(event);
    if (event.reboot) {
        story_.tell("phone", "", "reboots");
        phone_.clear_properties();
        modem_.reboot();
        if (!stage_.reboot()) return;
    } else if (event.restart) {
        stage_.start_daemon();
    }
    if (event.stop) stage_.stop("stop");
    arm();
}

void Timeline::apply(const Event& event) {
    for (const auto& [name, value] : event.set) {
        story_.tell("phone", "daemon", "property " + name + " = " + value);
        phone_.set_property(name, value);
    }
    if (event.state) modem_.change_state(static_cast<int>(*event.state));
}

}  // namespace rvd::lab

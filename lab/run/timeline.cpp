#include "lab/run/timeline.h"

#include <algorithm>

namespace rvd::lab {

void Timeline::resume(size_t position, bool panicked) {
    at_ = position;
    // The machine's own reboot was the one that the event asks for.
    if (panicked && !finished() && next().upload) apply(scenario.timeline[at_++]);
    phone.clear_properties();
    modem.reboot();
    arm();
}

void Timeline::on_wait() {
    if (pending() && next().waits) trigger();
}

bool Timeline::on_upload() {
    const bool wanted = pending() && next().upload;
    if (wanted) trigger();
    return wanted;
}

void Timeline::match(std::string Event::*wanted, const std::string& text) {
    if (!pending() || (next().*wanted).empty() || !matches(next().*wanted, text)) return;
    if (++matched_ == next().occurrence) trigger();
}

void Timeline::arm() {
    if (!pending() || !next().at) return;
    triggered_ = true;
    backend.later(std::max<Time>(start_ + *next().at - backend.now(), 0), [this] { fire(); });
}

void Timeline::trigger() {
    triggered_ = true;
    backend.later(next().after, [this] { fire(); });
}

void Timeline::fire() {
    const Event& event = next();
    at_++;
    triggered_ = false;
    matched_ = 0;
    apply(event);
    if (event.reboot) {
        story.add_message("phone", "", "reboots");
        if (!backend.reboot()) return;
    } else if (event.restart) {
        backend.start_daemon();
    }
    if (event.stop) backend.stop("stop");
    arm();
}

void Timeline::apply(const Event& event) {
    for (const auto& [name, value] : event.set) {
        story.add_message("phone", "daemon", "property " + name + " = " + value);
        phone.set_property(name, value);
    }
    if (event.state) modem.change_state(static_cast<int>(*event.state));
}

}  // namespace rvd::lab

#include "lab/run.h"

#include <stdio.h>
#include <time.h>

#include <algorithm>
#include <map>

#include "lab/checks.h"
#include "lab/driver.h"
#include "lab/gate.h"
#include "lab/phone.h"

namespace rvd::lab {

namespace {

Time parse_start(const std::string& text) {
    tm parts{};
    const char* end = strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
    if (end == nullptr || *end != '\0') throw Unable("\"" + text + "\" is no date and time");
    return timegm(&parts) * kSecond;
}

// What happens to the phone, one event after the other.
class Timeline {
  public:
    Timeline(const Scenario& scenario, const Phone& phone, Gate& gate, Driver& driver, Story& story)
        : scenario_(scenario),
          phone_(phone),
          gate_(gate),
          driver_(driver),
          story_(story),
          start_(gate.now()) {}

    void begin() { arm(); }

    void waits() {
        if (pending() && next().waits) trigger();
    }

    bool upload() {
        const bool wanted = pending() && next().upload;
        if (wanted) trigger();
        return wanted;
    }

    void fact(const std::string& kind, const std::string& text) {
        if (!pending()) return;
        const std::string& wanted = kind == "line" ? next().line : next().request;
        if (!wanted.empty() && matches(wanted, text)) trigger();
    }

    bool finished() const { return at_ == scenario_.timeline.size(); }

  private:
    const Event& next() const { return scenario_.timeline[at_]; }
    bool pending() const { return !finished() && !triggered_; }

    void arm() {
        if (!pending() || !next().at) return;
        triggered_ = true;
        gate_.later(std::max<Time>(start_ + *next().at - gate_.now(), 0), [this] { happen(); });
    }

    void trigger() {
        triggered_ = true;
        gate_.later(next().after, [this] { happen(); });
    }

    void happen() {
        const Event& event = next();
        at_++;
        triggered_ = false;
        for (const auto& [name, value] : event.set) {
            story_.tell("phone", "daemon", "property " + name + " = " + value);
            phone_.set_property(name, value);
        }
        if (event.state) driver_.change_state(static_cast<int>(*event.state));
        if (event.reboot) {
            story_.tell("phone", "", "reboots");
            phone_.clear_properties();
            driver_.reboot();
        }
        if (event.reboot || event.restart) gate_.start_daemon();
        if (event.stop) gate_.stop("stop");
        arm();
    }

    const Scenario& scenario_;
    const Phone& phone_;
    Gate& gate_;
    Driver& driver_;
    Story& story_;
    const Time start_;
    size_t at_ = 0;
    bool triggered_ = false;
};

// A pass begins and ends with nothing open but the logs. The wait between passes shows it,
// unless a node is open: then the wait is one within a pass.
void check_between_passes(const Gate& gate, Story& story) {
    const auto open = gate.descriptors();
    for (const auto& [fd, path] : open) {
        if (path == "/dev/boot" || path == "/dev/dump") return;
    }
    for (const auto& [fd, path] : open) {
        if (path != kAndroidLog) story.violation(format("descriptor %d is left open: ", fd) + path);
    }
}

// When the modem is powered on, this boot's own descriptors are open and no others.
void check_at_boot(const Gate& gate, const Scenario& scenario, Story& story) {
    std::map<std::string, int> count;
    for (const auto& [fd, path] : gate.descriptors()) {
        const bool own = path == kAndroidLog || path == "/dev/boot" || path.find("/dev/block/") == 0 ||
                         path.find("/mnt/vendor/efs/") == 0 || path == scenario.nv_path();
        if (!own || ++count[path] > 1)
            story.violation(format("descriptor %d is open at power-on: ", fd) + path);
    }
}

void print_summary(const Phone& phone, const Story& story, const Outcome& outcome) {
    printf("\nThe run ended with \"%s\" after %.3f s of the phone's time.\n", outcome.end.c_str(),
           static_cast<double>(outcome.lasted) / kSecond);
    printf("\nTransfers\n");
    for (const std::string& line : story.transfer_summary()) printf("  %s\n", line.c_str());
    printf("\nFiles\n");
    for (const std::string& line : file_summary(phone)) printf("  %s\n", line.c_str());
    if (!story.crash_sentence.empty())
        printf("\nThe crash, as the kernel was told%s\n", story.crash_sentence.c_str());
    const bool held = story.violations().empty();
    printf("\n%s\n", held ? "held: everything that was to be seen was seen" : "did not hold:");
    for (const std::string& violation : story.violations()) printf("  %s\n", violation.c_str());
}

}  // namespace

std::vector<std::string> run_scenario(const Scenario& scenario, const RunOptions& options) {
    enter_namespaces();
    Phone phone(scenario, options.root, options.keep);
    phone.build(options.daemon);

    const Time start = parse_start(scenario.start);
    Story story(options.story ? stdout : nullptr, start);
    Gate gate(scenario, phone, story,
              {start, options.real_time, std::chrono::seconds(options.timeout)});
    Driver driver(scenario, phone.partition(), gate, story);
    Timeline timeline(scenario, phone, gate, driver, story);
    gate.connect(driver);

    gate.on_wait = [&] { timeline.waits(); };
    gate.on_upload = [&] { return timeline.upload(); };
    gate.on_sleep = [&](Time span) {
        if (span == kSecond) check_between_passes(gate, story);
    };
    story.on_fact = [&](const std::string& kind, const std::string& text) {
        timeline.fact(kind, text);
        if (text == "POWER_ON") check_at_boot(gate, scenario, story);
        // With the real clock the wait itself isn't seen, only what is said before it.
        const bool waits = matches("*: Wait event from modem *", text) ||
                           matches("*: unknown Modem status", text);
        if (options.real_time && waits) timeline.waits();
    };

    if (!scenario.about.empty()) story.tell("phone", "", scenario.about);
    gate.start_daemon();
    timeline.begin();
    Outcome outcome;
    outcome.end = gate.serve();
    outcome.lasted = gate.now() - start;
    if (!timeline.finished()) story.violation("not everything in the timeline has happened");
    check_expectations(scenario, phone, driver, outcome, story);
    check_always(phone, story);
    if (options.summary) print_summary(phone, story, outcome);
    if (!options.trace.empty()) story.write_trace(options.trace);
    return story.violations();
}

}  // namespace rvd::lab

// What happened to the phone: events of the modem, shutdowns, starts; and how the evidence ends.
#include <fmt/format.h>

#include <algorithm>

#include "bootdump/lnkm.h"
#include "report/scenario/draft.h"

namespace rvd::report {

namespace {

constexpr int64_t kBooting = 3, kOnline = 4;  // states of the driver's own

bool waits(const Event& event) {
    return says(event, "status_loop", "Wait event") || says(event, "status_loop", "unknown Modem");
}

class Course {
  public:
    Course(const Events& events, Draft& draft) : events_(events), draft_(draft) {}

    void run() {
        for (at_ = 0; at_ < events_.size(); at_++) {
            const Event& event = events_[at_];
            if (says(event, "main", "Start Radio")) start();
            state(event);
            shutdown(event);
            if (says(event, "boot", "NV validation done")) validated();
            if (waits(event)) wait_ = at_;
        }
        end();
    }

  private:
    void happens(const std::string& when, const std::string& what, size_t at) {
        draft_.timeline.push_back(fmt::format("{{ {}, {} }}", when, what));
        since_ = at;
    }

    std::string line_at(size_t at) const {
        const size_t said = times_said(events_, at, since_);
        return fmt::format("line = {}{}", quoted(pattern_of(events_[at])),
                           said > 1 ? fmt::format(", said = {}", said) : "");
    }

    // "after = ...", as far as the lines have times.
    std::string pause(size_t from, size_t to) const {
        const KernelTime begin = events_[from].at, end = events_[to].at;
        const KernelTime span = begin == kNoTime || end == kNoTime ? 1'000'000 : end - begin;
        return span <= 0 ? "" : fmt::format(", after = \"{} ms\"", (span + 999) / 1000);
    }

    // The daemon was started again, from the lines about its debug level on.
    void start() {
        size_t begin = at_;
        while (begin > 0 && (events_[begin - 1].step == "get_cmdline_str" ||
                             events_[begin - 1].step == "check_debug_level" ||
                             events_[begin - 1].step == "check_debug_cp_opt"))
            begin--;
        if (begin > 0 && at_ > begin - 1 && started_) {
            const size_t last = begin - 1;
            const bool panicked = ends_with(events_[last].message, "Go to UPLOAD mode");
            const bool rebooted = panicked || events_[begin].device_started || properties_gone();
            const std::string when = panicked               ? "upload = true" + pause(last, begin)
                                     : waits(events_[last]) ? "waits = true" + pause(last, begin)
                                                            : line_at(last);
            happens(when, rebooted ? "reboot = true" : "restart = true", at_);
            if (rebooted) {
                state_ = 0;
                device_off_ = "0";
            }
        }
        started_ = true;
    }

    // Whether the daemon found no property of its life before.
    bool properties_gone() const {
        for (size_t at = at_; at < events_.size() && !waits(events_[at]); at++) {
            const std::string& message = events_[at].message;
            if (message.find("/cp_boot_") != std::string::npos ||
                message.find("already xmit once") != std::string::npos ||
                message == "skip VSS check" || message == "CP_DEBUG NORESET" ||
                message.find("level=0") != std::string::npos)
                return false;
        }
        return true;
    }

    void state(const Event& event) {
        const std::string& message = event.message;
        const int64_t before = state_.value_or(0);
        if (ends_with(message, "Power on CP")) begin(kBooting);
        if (starts_with(message, "Complete normal")) begin(kOnline);
        if (starts_with(message, "STATE_CRASH_RESET")) begin(MODEM_STATE_OFF);
        const bool refused = starts_with(message, "ERR! IOCTL_POWER_ON") ||
                             starts_with(message, "ERR! IOCTL_COMPLETE") ||
                             starts_with(message, "cp off ioctl fail");
        if (refused) state_ = state_before_;
        if (const auto asked = number_after(message, "modem_status: ")) {
            if (!state_ && *asked >= 0) {
                state_ = *asked;
                if (*asked > 0) draft_.driver["state"] = fmt::format("{}", *asked);
            } else if (*asked != before) {
                status(*asked, at_ - 1);
            }
        }
        if (const auto changed = number_after(message, "get event ")) event_of_modem(*changed);
    }

    void begin(int64_t state) {
        state_before_ = state_.value_or(0);
        state_ = state;
    }

    void status(int64_t state, size_t behind) {
        draft_.answers.push_back(fmt::format("{{ request = \"GET_CP_STATUS\", result = {}, {} }}",
                                             state < 0 ? -5 : state, after(events_, behind)));
    }

    void event_of_modem(int64_t state) {
        const std::string set = device_off(wait_, at_);
        happens("waits = true" + pause(wait_, at_),
                fmt::format("state = {}{}", std::max<int64_t>(state, 0), set), wait_);
        state_ = std::max<int64_t>(state, 0);
        if (state < 0) status(state, wait_);
    }

    // The property, where the lines between two say another value than before.
    std::string device_off(size_t from, size_t to) {
        constexpr std::string_view kSaid = "deviceOff = ";
        for (size_t at = from; at < to; at++) {
            const std::string& message = events_[at].message;
            if (!starts_with(message, kSaid) || message.substr(kSaid.size()) == device_off_)
                continue;
            device_off_ = message.substr(kSaid.size());
            return fmt::format(", set = {{ \"sys.shutdown.requested\" = {} }}",
                               quoted(device_off_));
        }
        return "";
    }

    void shutdown(const Event& event) {
        if (says(event, "status_loop", "shutdown"))
            happens("waits = true" + pause(wait_, at_), "state = 0" + device_off(wait_, at_),
                    wait_);
        if (!says(event, "main", "deviceOff = ")) return;
        const std::string value = event.message.substr(event.message.find('=') + 2);
        if (!booted())
            draft_.properties["sys.shutdown.requested"] = value;
        else
            happens(line_at(at_ - 1),
                    fmt::format("set = {{ \"sys.shutdown.requested\" = {} }}", quoted(value)), at_);
    }

    bool booted() const {
        return std::any_of(events_.begin(), events_.begin() + static_cast<ptrdiff_t>(at_),
                           [](const Event& event) { return says(event, "main", "Call boot"); });
    }

    // The property is looked at every 100 ms.
    void validated() {
        const KernelTime waited = events_[at_].at - events_[at_ - 1].at;
        if (events_[at_].at == kNoTime || events_[at_ - 1].at == kNoTime || waited <= 0) return;
        draft_.properties["vendor.rvd.rfs_check_done"] = "0";
        const KernelTime since_start = events_[at_].at - events_[0].at;
        happens(fmt::format("at = \"{} ms\"", since_start / 1000 - 50),
                "set = { \"vendor.rvd.rfs_check_done\" = \"1\" }", at_);
    }

    void end() {
        const Event& last = *std::find_if(events_.rbegin(), events_.rend(), [](const Event& event) {
            return event.step == "status_loop" || event.step == "main" ||
                   event.step == "parseArgs" || event.step == "boot" || event.step == "dump" ||
                   event.failure || ends_with(event.message, "UPLOAD mode") ||
                   event.step == "check_debug_level";
        });
        if (waits(last))
            draft_.end = "waits";
        else if (ends_with(last.message, "Go to UPLOAD mode"))
            draft_.end = "upload";
        else if (last.message == "Cp boot Oneshot" || says(last, "main", "Start Radio"))
            draft_.end = "exit 0";
        else if (last.message == "Unknown modem")
            draft_.end = "exit 234";
        else if (last.message == "shutdown" || starts_with(last.message, "deviceOff") ||
                 starts_with(last.message, "hang rvd") || starts_with(last.message, "Invaild"))
            draft_.end = "parked";
        else {
            happens(line_at(events_.size() - 1), "stop = true", events_.size() - 1);
            draft_.end = "stop";
        }
    }

    const Events& events_;
    Draft& draft_;
    size_t at_ = 0, wait_ = 0, since_ = 0;
    bool started_ = false;
    std::optional<int64_t> state_;
    int64_t state_before_ = 0;
    std::string device_off_ = "0";
};

}  // namespace

void describe_course(const Events& events, Draft& draft) {
    Course(events, draft).run();
}

}  // namespace rvd::report

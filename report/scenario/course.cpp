// What happened to the phone: events of the modem, shutdowns, starts; and how the evidence ends.
#include <fmt/format.h>

#include <algorithm>

#include "bootdump/lnkm.h"
#include "report/scenario/draft.h"

namespace rvd::report {

namespace {

constexpr std::string_view kDeviceOff = "deviceOff = ";
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
    void happens(Draft when, const Draft& what, size_t at) {
        when.update(what);
        draft_["timeline"].push_back(when);
        since_ = at;
    }

    Draft line_at(size_t at) const { return line_of("line", events_, at, since_); }

    // So long behind this state of the run, as far as the lines have times.
    Draft behind_state(const char* state, size_t from, size_t to) const {
        const KernelTime begin = events_[from].at, end = events_[to].at;
        const KernelTime span = begin == kNoTime || end == kNoTime ? 1'000'000 : end - begin;
        Draft when = {{state, true}};
        if (span > 0) when["after"] = fmt::format("{} ms", (span + 999) / 1000);
        return when;
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
            happens(panicked               ? behind_state("upload", last, begin)
                    : waits(events_[last]) ? behind_state("waits", last, begin)
                                           : line_at(last),
                    {{rebooted ? "reboot" : "restart", true}}, at_);
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
                if (*asked > 0) draft_["driver"]["state"] = *asked;
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
        Draft answer = {{"request", "GET_CP_STATUS"}, {"result", state < 0 ? -5 : state}};
        answer.update(line_of("after", events_, behind));
        draft_["driver"]["answer"].push_back(answer);
    }

    void event_of_modem(int64_t state) {
        state_ = std::max<int64_t>(state, 0);
        change_state(*state_);
        if (state < 0) status(state, wait_);
    }

    static Draft shutdown_set(const std::string& value) {
        return {{"set", {{"sys.shutdown.requested", value}}}};
    }

    // While the daemon waits; the property too, where the lines since then say another value.
    void change_state(int64_t state) {
        Draft what = {{"state", state}};
        for (size_t at = wait_; at < at_; at++) {
            const std::string& message = events_[at].message;
            if (!starts_with(message, kDeviceOff) || behind(message, kDeviceOff) == device_off_)
                continue;
            device_off_ = behind(message, kDeviceOff);
            what.update(shutdown_set(device_off_));
            break;
        }
        // Lines are counted from the event on: copies of the kernel log are saved while it waits.
        size_t since = wait_;
        while (since < at_ && events_[since].at < events_[at_].at)
            since++;
        happens(behind_state("waits", wait_, at_), what, since);
    }

    void shutdown(const Event& event) {
        if (says(event, "status_loop", "shutdown")) change_state(0);
        if (!says(event, "main", kDeviceOff)) return;
        const std::string value = behind(event.message, kDeviceOff);
        if (first_said(events_, "main", "Call boot") < at_)
            happens(line_at(at_ - 1), shutdown_set(value), at_);
        else
            draft_["properties"]["sys.shutdown.requested"] = value;
    }

    // The property is looked at every 100 ms.
    void validated() {
        const KernelTime waited = events_[at_].at - events_[at_ - 1].at;
        if (events_[at_].at == kNoTime || events_[at_ - 1].at == kNoTime || waited <= 0) return;
        draft_["properties"]["vendor.rvd.rfs_check_done"] = "0";
        const KernelTime since_start = events_[at_].at - events_[0].at;
        happens({{"at", fmt::format("{} ms", since_start / 1000 - 50)}},
                {{"set", {{"vendor.rvd.rfs_check_done", "1"}}}}, at_);
    }

    void end() {
        const auto said = std::find_if(events_.rbegin(), events_.rend(), [](const Event& event) {
            return event.step == "status_loop" || event.step == "main" ||
                   event.step == "parseArgs" || event.step == "boot" || event.step == "dump" ||
                   event.failure || ends_with(event.message, "UPLOAD mode") ||
                   event.step == "check_debug_level";
        });
        const Event& last = said == events_.rend() ? events_.back() : *said;
        if (waits(last))
            draft_["expect"]["end"] = "waits";
        else if (ends_with(last.message, "Go to UPLOAD mode"))
            draft_["expect"]["end"] = "upload";
        else if (last.message == "Cp boot Oneshot" || says(last, "main", "Start Radio"))
            draft_["expect"]["end"] = "exit 0";
        else if (last.message == "Unknown modem")
            draft_["expect"]["end"] = "exit 234";
        else if (last.message == "shutdown" || starts_with(last.message, "deviceOff") ||
                 starts_with(last.message, "hang rvd") || starts_with(last.message, "Invaild"))
            draft_["expect"]["end"] = "parked";
        else {
            happens(line_at(events_.size() - 1), {{"stop", true}}, events_.size() - 1);
            draft_["expect"]["end"] = "stop";
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

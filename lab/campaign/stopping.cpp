#include "lab/campaign/stopping.h"

#include <fmt/format.h>

#include <algorithm>

#include "lab/run/checks.h"

namespace rvd::lab {

namespace {

constexpr char kCounter[] = "vendor.rvd.cp_reset";

// The boot and what comes first in the flow are repeated.
constexpr Time kRepeated = 120 * kSecond;

// What the daemon says once a file is saved, and the files that it says it of.
constexpr struct {
    const char *line, *files;
} kSaved[] = {
        {"get_log_dump: * Complete! *", "*/cpcrash_*_dump_[a-z]*"},
        {"*: DUMP INFO saved", "*/cpcrash_*_info_*"},
        {"*: DUMP DATA saved", "*/cpcrash_*_dump_[0-9]*"},
        {"_save_logs: /*", "*/*_[0-9][0-9].log"},
        {"write_srinfo_file: store done", "*/*sr_info_*"},
        {"create_empty_nv: NV(*) saved *", "/mnt/*"},
};

bool begins_with(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

// The records handed back to the driver.
std::vector<std::string> records(const std::vector<std::string>& requests) {
    std::vector<std::string> found;
    std::copy_if(requests.begin(), requests.end(), std::back_inserter(found),
                 [](const std::string& request) { return matches("SET_SRINFO *", request); });
    return found;
}

}  // namespace

void Stopping::begin(Play& play) {
    play_ = &play;
    if (!power_) return;
    disk_.emplace(play.phone);
    saved_ = closed_files(play.phone, {});
}

void Stopping::call(const std::string& name, const std::string& path, int fd) {
    if (name == "unlink") saved_.erase(path);
    if (disk_)
        disk_->call(name, path, fmt::format("/proc/{}/fdinfo/{}", play_->stage.daemon(), fd));
}

void Stopping::line(const std::string& text) {
    if (!disk_) return;
    for (const auto& [line, files] : kSaved) {
        if (!matches(line, text)) continue;
        for (auto& [path, content] : closed_files(play_->phone, {})) {
            if (matches(files, path)) saved_[path] = content;
        }
    }
}

void Stopping::fault(const Fault&) {
    play_->stage.later(0, [this] { stop(); });
}

void Stopping::stop() {
    Files now = closed_files(play_->phone,
                             power_ ? std::vector<std::string>() : open_paths(play_->stage));
    for (auto& [path, content] : now) {
        const auto saved = saved_.find(path);
        if (!power_) {
            before_[path] = content;
        } else if (saved != saved_.end() && begins_with(content, saved->second)) {
            before_.insert(*saved);
        }
    }
    const auto& timeline = play_->scenario.timeline;
    if (!timeline.empty() && timeline[0].set.empty()) {
        const Event again = timeline[0];
        play_->scenario.timeline.insert(
                timeline.begin() + static_cast<ptrdiff_t>(play_->timeline.position()), again);
    }
    lines_ = play_->story.log().size();
    if (power_) {
        play_->story.tell("phone", "", "loses its power");
        disk_->cut(*power_, lines_);
        disk_.reset();
        // Now: the next crash may be saved under the same names.
        for (const auto& [path, content] : before_) {
            if (!begins_with(read_file(play_->phone.path(path)), content))
                play_->story.violation(path + " was reported as saved");
        }
        play_->phone.clear_properties();
        play_->modem.reboot();
        play_->stage.reboot();
    } else {
        play_->story.tell("phone", "daemon", "kills it");
        boots_ = strtol(play_->phone.property(kCounter).c_str(), nullptr, 10);
        play_->stage.start_daemon();
    }
}

// Each boot since is counted, from where the count was; a reboot begins anew.
void Stopping::check_counter() {
    const auto& log = play_->story.log();
    const int64_t wanted =
            boots_ + std::count_if(log.begin() + static_cast<ptrdiff_t>(lines_), log.end(),
                                   [](const std::string& line) {
                                       return matches("status_loop: CP status_loop start *", line);
                                   });
    const std::string seen = play_->phone.property(kCounter);
    if (strtol(seen.c_str(), nullptr, 10) != wanted)
        play_->story.violation(fmt::format("{} boots are counted as \"{}\"", wanted, seen));
}

// The lock is the kernel's, and survives the daemon.
void Stopping::check_wake_lock() {
    const auto& log = play_->story.log();
    const auto last = std::find_if(log.rbegin(), log.rend(), [](const std::string& line) {
        return matches("boot_wake_lock: *", line);
    });
    if (last != log.rend() && !matches("*/wake_unlock/*", *last))
        play_->story.violation("the wake lock is left held");
}

// No record is cut or lost; one may be handed back twice.
void Stopping::check_records(const Conduct& conduct) {
    const auto wanted = records(clean_.requests), seen = records(conduct.requests);
    for (const std::string& record : seen) {
        if (std::find(wanted.begin(), wanted.end(), record) == wanted.end())
            play_->story.violation("a record that never was: " + record);
    }
    if (seen.size() < wanted.size()) play_->story.violation("a record was not handed back");
}

void Stopping::judge(Conduct& conduct) {
    Story& story = play_->story;
    const Scenario& scenario = play_->scenario;
    check_obstacles(scenario, true, story);
    if (power_.value_or(Disk::Unflushed::all) == Disk::Unflushed::all)
        check_collected(scenario, play_->phone, story);
    check_whole(scenario, play_->phone, story);
    for (const std::string& text :
         differences(clean_, conduct, before_, story.log(), clean_.lasted + kRepeated))
        story.violation(text);
    if (conduct.end == clean_.end && conduct.modem != clean_.modem)
        story.violation(fmt::format("the modem is left in state {}", conduct.modem));
    for (const auto& [path, content] : conduct.files) {
        if (matches("*.new", path)) story.violation("an unfinished " + path + " is left");
    }
    check_counter();
    check_wake_lock();
    check_records(conduct);
    conduct = {};
}

}  // namespace rvd::lab

#include "lab/campaign/trial.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

#include "bootdump/lnkm.h"
#include "lab/run/checks.h"

namespace rvd::lab {

namespace {

constexpr char kCounter[] = "vendor.rvd.cp_reset";

// One failure costs at most the longest wait for an answer and what is repeated after it: tries at
// the log directory, the boot or the dump.
constexpr Time kGrace = 45 * kSecond;

// After a stop the boot and what comes first in the flow are repeated.
constexpr Time kRepeated = 120 * kSecond;

// What the daemon says once a file is saved, and the files that it says it of.
constexpr struct {
    const char *line, *files;
} kSaved[] = {
        {"get_log_dump: * Complete! *", "*/cpcrash_*_dump_[a-z]*"},
        {"*: DUMP INFO saved", "*/cpcrash_*_info_*"},
        {"*: DUMP DATA saved", "*/cpcrash_*_dump_[0-9]*"},
        {"*: Go to UPLOAD mode", "*/cpcrash_*_log_*"},
        {"_save_logs: /*", "*/*_[0-9][0-9].log"},
        {"write_srinfo_file: store done", "*/*sr_info_*"},
};

bool begins_with(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

int64_t count_from(size_t first, const std::vector<std::string>& texts, const char* pattern) {
    return std::count_if(texts.begin() + static_cast<ptrdiff_t>(first), texts.end(),
                         [&](const std::string& text) { return matches(pattern, text); });
}

// Complete is complete: more may be appended, what was moved is whole in its new place, and what
// the clean run replaces or removes may be replaced or removed.
bool damaged(const std::string& path, const std::string& content, const Files& clean,
             const Files& files) {
    const auto wanted = clean.find(path), now = files.find(path);
    if (now == files.end() && wanted == clean.end()) return false;
    if (now != files.end() && wanted != clean.end() && now->second == wanted->second) return false;
    return std::none_of(files.begin(), files.end(),
                        [&](const auto& file) { return begins_with(file.second, content); });
}

}  // namespace

void Trial::begin(Play& play) {
    Conductor::begin(play);
    if (kind_ != Kind::cut) return;
    disk_.emplace(play.phone);
    saved_ = closed_files(play.phone, {});
}

void Trial::call(const std::string& name, const std::string& path, int fd) {
    if (name == "unlink") saved_.erase(path);
    if (name == "unlink" && path == record() && handed_back() == 0)
        violation(path + " is removed before it is handed back");
    if (name == "write" && path == kWakeLockPath) locked_ = true;
    if (name == "write" && path == kWakeUnlockPath) locked_ = false;
    if (disk_) disk_->call(name, path, play_->stage.daemon(), fd);
}

void Trial::line(const std::string& text) {
    if (!disk_) return;
    for (const auto& [line, files] : kSaved) {
        if (!matches(line, text)) continue;
        for (auto& [path, content] : closed_files(play_->phone, {})) {
            if (matches(files, path)) saved_[path] = content;
        }
    }
}

void Trial::fault(const Fault&) {
    if (kind_ == Kind::fail) {
        before_ = closed_files(play_->phone, open_paths(play_->stage));
    } else {
        play_->stage.later(0, [this] { stop(); });
    }
}

void Trial::stop() {
    repeat_first_event();
    stopped_in_pass_ = true;
    lines_ = play_->story.log().size();
    if (kind_ == Kind::cut) {
        cut_power();
    } else {
        kill_daemon();
    }
}

void Trial::repeat_first_event() {
    auto& timeline = play_->scenario.timeline;
    if (timeline.empty() || !timeline[0].set.empty()) return;
    const Event again = timeline[0];
    timeline.insert(timeline.begin() + static_cast<ptrdiff_t>(play_->timeline.position()), again);
}

void Trial::cut_power() {
    const Phone& phone = play_->phone;
    play_->story.tell("phone", "", "loses its power");
    before_ = reported_and_there();
    disk_->cut(survives_, lines_);
    disk_.reset();
    // Now: the next crash may be saved under the same names.
    for (const auto& [path, content] : before_) {
        if (!begins_with(read_file(phone.path(path)), content))
            violation(path + " was reported as saved");
    }
    phone.clear_properties();
    play_->modem.reboot();
    play_->stage.reboot();
}

// What was reported and has not been written over since.
Files Trial::reported_and_there() const {
    Files files;
    for (const auto& [path, content] : saved_) {
        if (begins_with(read_file(play_->phone.path(path)), content)) files.emplace(path, content);
    }
    return files;
}

void Trial::kill_daemon() {
    play_->story.tell("phone", "daemon", "kills it");
    before_ = closed_files(play_->phone, open_paths(play_->stage));
    boots_ = strtol(play_->phone.property(kCounter).c_str(), nullptr, 10);
    play_->stage.start_daemon();
}

void Trial::waits() {
    if (kind_ == Kind::fail) return;
    if (locked_) violation("the daemon waits, and the wake lock is held");
    check_records();
    requests_ = play_->story.requests().size();
    stopped_in_pass_ = false;
}

// Where a record waits to be handed back.
std::string Trial::record() const {
    return "/data/vendor/log/rvd/err/last_sr_info_" + play_->scenario.prefix();
}

// So often in this pass.
int64_t Trial::handed_back() const {
    return count_from(requests_, play_->story.requests(), "SET_SRINFO *");
}

void Trial::check_records() {
    const auto& requests = play_->story.requests();
    const int64_t fetched = count_from(requests_, requests, "GET_SRINFO len=[1-9]*");
    const int64_t handed = handed_back();
    const bool right = stopped_in_pass_ ? handed <= 2 : handed == std::min<int64_t>(fetched, 1);
    if (!right) violation(fmt::format("a record is handed back {} times", handed));
    if (std::filesystem::exists(play_->phone.path(record())))
        violation(record() + " is still there once the boot is over");
    const std::string& text = play_->scenario.driver.srinfo;
    const std::string whole = fmt::format("SET_SRINFO len={} {}", text.size(), text);
    for (size_t i = requests_; i < requests.size(); i++) {
        if (matches("SET_SRINFO *", requests[i]) && requests[i] != whole)
            violation("a record that never was: " + requests[i]);
    }
}

void Trial::judge(Conduct& conduct) {
    check_faults(*play_);
    check_end(conduct);
    check_complete(conduct.files);
    // A cut may leave sectors of zeros in what was not reported.
    if (kind_ != Kind::cut || survives_ == Disk::Unflushed::all) check_collected(*play_);
    if (kind_ == Kind::fail) return;
    check_whole(*play_);
    check_counter();
    if (conduct.end == clean_.end && conduct.modem != clean_.modem)
        violation(fmt::format("the modem is left in state {}", conduct.modem));
    for (const auto& [path, content] : conduct.files) {
        if (matches("*.new", path)) violation("an unfinished " + path + " is left");
    }
    const auto records = [](const Conduct& run) {
        return count_from(0, run.requests, "SET_SRINFO *");
    };
    if (records(conduct) < records(clean_)) violation("a record was not handed back");
    conduct = {};  // nobody learns from it
}

void Trial::check_end(const Conduct& conduct) {
    // A shutdown that was not heard of leaves the daemon waiting.
    const bool deaf = clean_.end == "parked" && conduct.end == "waits";
    if (conduct.end != clean_.end && !deaf)
        violation("the run ended with \"" + conduct.end + "\", not \"" + clean_.end + "\"");
    const Time longer = kind_ == Kind::fail ? kGrace : clean_.lasted + kRepeated;
    if (conduct.lasted > clean_.lasted + longer)
        violation(fmt::format("the run lasted {} s, not about {} s", conduct.lasted / kSecond,
                              clean_.lasted / kSecond));
    std::vector<std::string> more;
    std::set_difference(conduct.open.begin(), conduct.open.end(), clean_.open.begin(),
                        clean_.open.end(), std::back_inserter(more));
    for (const std::string& path : more)
        violation("left open: " + path);
}

void Trial::check_complete(const Files& files) {
    for (const auto& [path, content] : before_) {
        if (!damaged(path, content, clean_.files, files)) continue;
        // A crash file has the minute of its crash in its name: another one within it takes its
        // place.
        const std::string opened = "*: " + path + " opened (fd *";
        if (count_from(0, play_->story.log(), opened.c_str()) < 2)
            violation(path + " was complete before");
    }
}

// Each boot since is counted, from where the count was; a reboot begins anew.
void Trial::check_counter() {
    const int64_t wanted =
            boots_ + count_from(lines_, play_->story.log(), "status_loop: CP status_loop start *");
    const std::string seen = play_->phone.property(kCounter);
    if (strtol(seen.c_str(), nullptr, 10) != wanted)
        violation(fmt::format("{} boots are counted as \"{}\"", wanted, seen));
}

}  // namespace rvd::lab

#include "lab/campaign/trial.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

#include "bootdump/lnkm.h"
#include "lab/run/checks.h"

namespace rvd::lab {

namespace {

constexpr char kCounter[] = "vendor.rvd.cp_reset";

// A failure delays a run by at most the longest wait for an answer plus the retries after it.
constexpr Time kGrace = 45 * kSecond;

// After a stop the boot and the first event are repeated.
constexpr Time kRepeated = 120 * kSecond;

// The lines with which the daemon reports files as saved, and the files.
constexpr struct {
    const char *line, *files;
} kReports[] = {
        {"get_log_dump: * Complete! *", "*/cpcrash_*_dump_[a-z]*"},
        {"*: DUMP INFO saved", "*/cpcrash_*_info_*"},
        {"*: DUMP DATA saved", "*/cpcrash_*_dump_[0-9]*"},
        {"*: Go to UPLOAD mode", "*/cpcrash_*_log_*"},
        {"_save_logs: /*", "*/*_[0-9][0-9].log"},
        {"write_srinfo_file: store done", "*/*sr_info_*"},
};

// Whether a complete file has lost content. It may grow or be renamed, and it may be replaced or
// removed if the baseline does so.
bool damaged(const std::string& path, const std::string& content, const Files& baseline,
             const Files& files) {
    const auto expected = baseline.find(path), now = files.find(path);
    if (now == files.end() && expected == baseline.end()) return false;
    if (now != files.end() && expected != baseline.end() && now->second == expected->second)
        return false;
    return std::none_of(files.begin(), files.end(),
                        [&](const auto& file) { return starts_with(file.second, content); });
}

}  // namespace

void Trial::begin(RunContext& run) {
    RunController::begin(run);
    if (kind_ != FaultKind::cut) return;
    disk_.emplace(run.phone);
    reported_ = run.phone.closed_files({});
}

void Trial::on_call(const std::string& name, const std::string& path, int fd) {
    if (name == "unlink") reported_.erase(path);
    if (name == "unlink" && path == record_path() && handed_back() == 0)
        violation(path + " is removed before it is handed back");
    if (name == "write" && path == kWakeLockPath) locked_ = true;
    if (name == "write" && path == kWakeUnlockPath) locked_ = false;
    if (disk_) disk_->on_call(name, path, run_->backend.daemon(), fd);
}

void Trial::on_line(const std::string& text) {
    if (!disk_) return;
    for (const auto& [line, files] : kReports) {
        if (!matches(line, text)) continue;
        for (auto& [path, content] : run_->phone.closed_files({})) {
            if (matches(files, path)) reported_[path] = content;
        }
    }
}

void Trial::on_fault(const Fault&) {
    if (kind_ == FaultKind::fail) {
        before_ = run_->phone.closed_files(run_->backend.open_paths());
    } else {
        run_->backend.later(0, [this] { stop(); });
    }
}

void Trial::stop() {
    repeat_first_event();
    stopped_in_pass_ = true;
    lines_ = run_->story.log().size();
    if (kind_ == FaultKind::cut) {
        cut_power();
    } else {
        kill_daemon();
    }
}

void Trial::repeat_first_event() {
    auto& timeline = run_->scenario.timeline;
    if (timeline.empty() || !timeline[0].set.empty()) return;
    const Event again = timeline[0];
    timeline.insert(timeline.begin() + static_cast<ptrdiff_t>(run_->timeline.position()), again);
}

void Trial::cut_power() {
    const Phone& phone = run_->phone;
    run_->story.add_message("phone", "", "loses its power");
    before_ = intact_reported_files();
    disk_->cut(survival_, lines_);
    disk_.reset();
    // Checked at once, since the next crash may reuse the names.
    for (const auto& [path, content] : before_) {
        if (!starts_with(read_file(phone.path(path)), content))
            violation(path + " was reported as saved and is lost");
    }
    run_->backend.reboot();
}

// Files that were reported as saved and not overwritten since.
Files Trial::intact_reported_files() const {
    Files files;
    for (const auto& [path, content] : reported_) {
        if (starts_with(read_file(run_->phone.path(path)), content)) files.emplace(path, content);
    }
    return files;
}

void Trial::kill_daemon() {
    run_->story.add_message("phone", "daemon", "kills it");
    before_ = run_->phone.closed_files(run_->backend.open_paths());
    boots_ = strtol(run_->phone.property(kCounter).c_str(), nullptr, 10);
    run_->backend.start_daemon();
}

void Trial::on_wait() {
    if (kind_ == FaultKind::fail) return;
    if (locked_) violation("the daemon waits while the wake lock is held");
    check_records();
    requests_ = run_->story.requests().size();
    stopped_in_pass_ = false;
}

// The silent-reset record that is to be handed back.
std::string Trial::record_path() const {
    return kLogDirectory + ("/err/last_sr_info_" + run_->scenario.prefix());
}

// How often in the current pass.
int64_t Trial::handed_back() const {
    return count_matches("SET_SRINFO *", run_->story.requests(), requests_);
}

void Trial::check_records() {
    const auto& requests = run_->story.requests();
    const int64_t fetched = count_matches("GET_SRINFO len=[1-9]*", requests, requests_);
    const int64_t handed = handed_back();
    const bool right = stopped_in_pass_ ? handed <= 2 : handed == std::min<int64_t>(fetched, 1);
    if (!right) violation("a record is handed back {} times", handed);
    if (std::filesystem::exists(run_->phone.path(record_path())))
        violation(record_path() + " is still there after the boot");
    const std::string& text = run_->scenario.driver.srinfo;
    const std::string complete = fmt::format("SET_SRINFO len={} {}", text.size(), text);
    for (size_t i = requests_; i < requests.size(); i++) {
        if (matches("SET_SRINFO *", requests[i]) && requests[i] != complete)
            violation("an unknown record is handed back: " + requests[i]);
    }
}

void Trial::check(RunRecord& record) {
    check_faults(*run_);
    check_end(record);
    check_complete(record.files);
    // A cut may leave sectors of zeros in files that were not reported as saved.
    if (kind_ != FaultKind::cut || survival_ == Disk::Survival::all) check_prefixes(*run_);
    if (kind_ == FaultKind::fail) return;
    check_any_complete(*run_);
    check_counter();
    if (record.end == baseline_.end && record.modem != baseline_.modem)
        violation("the modem is left in state {}", record.modem);
    for (const auto& [path, content] : record.files) {
        if (matches("*.new", path)) violation("the unfinished " + path + " is left");
    }
    const auto records = [](const RunRecord& run) {
        return count_matches("SET_SRINFO *", run.requests);
    };
    if (records(record) < records(baseline_)) violation("a record was not handed back");
    record = {};  // only a baseline's is used
}

void Trial::check_end(const RunRecord& record) {
    // A daemon that misses the shutdown keeps waiting.
    const bool missed_shutdown = baseline_.end == "parked" && record.end == "waits";
    if (record.end != baseline_.end && !missed_shutdown)
        violation("the run ended with \"" + record.end + "\", not \"" + baseline_.end + "\"");
    const Time longer = kind_ == FaultKind::fail ? kGrace : baseline_.lasted + kRepeated;
    if (record.lasted > baseline_.lasted + longer)
        violation("the run lasted {} s, not about {} s", record.lasted / kSecond,
                  baseline_.lasted / kSecond);
    std::vector<std::string> additional;
    std::set_difference(record.open.begin(), record.open.end(), baseline_.open.begin(),
                        baseline_.open.end(), std::back_inserter(additional));
    for (const std::string& path : additional)
        violation("left open: " + path);
}

void Trial::check_complete(const Files& files) {
    for (const auto& [path, content] : before_) {
        if (!damaged(path, content, baseline_.files, files)) continue;
        // A second crash within the minute overwrites the file, whose name holds the minute.
        const std::string opened = "*: " + path + " opened (fd *";
        if (count_matches(opened, run_->story.log()) < 2)
            violation(path + " was complete before the fault and is damaged");
    }
}

// Every boot after the stop is counted. A reboot resets the counter.
void Trial::check_counter() {
    const int64_t expected = boots_ + count_matches("status_loop: CP status_loop start *",
                                                    run_->story.log(), lines_);
    const std::string seen = run_->phone.property(kCounter);
    if (strtol(seen.c_str(), nullptr, 10) != expected)
        violation("{} boots are counted as \"{}\"", expected, seen);
}

}  // namespace rvd::lab

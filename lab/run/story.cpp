#include "lab/run/story.h"

#include <fmt/core.h>

#include <algorithm>
#include <nlohmann/json.hpp>

namespace rvd::lab {

namespace {

constexpr uint64_t kLongTransfer = 16 << 20;

double seconds(Time time) {
    return static_cast<double>(time) / kSecond;
}

}  // namespace

Story::Story(FILE* out, const Look& look, Time start)
    : out_(out), printer_(out, look, start), start_(start), now_(start) {}

void Story::begin(const std::string& about) {
    if (out_ != nullptr) printer_.begin(about);
}

void Story::recall(std::vector<std::string> log, std::vector<std::string> requests,
                   std::vector<std::string> violations) {
    log_ = std::move(log);
    requests_ = std::move(requests);
    violations_ = std::move(violations);
}

void Story::forget() {
    log_.clear();
    requests_.clear();
    facts_.clear();
    told_.clear();
    transfers_.clear();
    ring_.clear();
}

void Story::tell(const char* from, const char* to, const std::string& text) {
    told_.push_back({now_ - start_, from, to, text});
    if (out_ != nullptr) printer_.line(now_, from, to, text);
}

void Story::log_line(int level, const std::string& text) {
    static const std::string prefix = "lnkm: rvd: ";
    end_transfer();
    keep_in_ring(level, text);
    std::string shown = text;
    if (shown.compare(0, prefix.size(), prefix) == 0) shown.erase(0, prefix.size());
    if (!shown.empty() && shown.back() == '\n') shown.pop_back();
    tell("daemon", "", shown);
    log_.push_back(shown);
    keep_fact("line", shown);
}

void Story::request(const char* to, const std::string& text, bool shown) {
    if (shown) end_transfer();
    requests_.push_back(text);
    keep_in_ring(6, std::string(to) + ": " + text);
    if (shown) tell("daemon", to, text);
    keep_fact("request", text);
}

void Story::keep_fact(const char* kind, const std::string& text) {
    facts_.push_back(format("%g s ", seconds(now_ - start_)) + text);
    if (on_fact) on_fact(kind, text);
}

void Story::violation(const std::string& text) {
    told_.push_back({now_ - start_, "lab", "", "FAIL: " + text});
    violations_.push_back(fmt::format("{:.3f} s: {}", seconds(now_ - start_), text));
}

void Story::keep_in_ring(int level, const std::string& text) {
    ring_ += format("<%d>[%12.6f] ", level, seconds(now_ - start_)) + text;
    if (ring_.empty() || ring_.back() != '\n') ring_ += '\n';
}

void Story::begin_transfer(const std::string& name, uint64_t total) {
    const auto real = Clock::now();
    transfers_.push_back({name, total, 0, now_, now_, real, real, false});
}

void Story::advance_transfer(uint64_t bytes) {
    Transfer& transfer = transfers_.back();
    const uint64_t before = transfer.bytes;
    transfer.bytes += bytes;
    if (transfer.total < kLongTransfer) return;
    const uint64_t quarter = transfer.total / 4;
    if (before / quarter == transfer.bytes / quarter) return;
    tell("loader", "",
         format("%s: %s of %s", transfer.name.c_str(), human_size(transfer.bytes).c_str(),
                human_size(transfer.total).c_str()));
}

void Story::end_transfer() {
    if (transfers_.empty() || transfers_.back().over) return;
    Transfer& last = transfers_.back();
    if (last.bytes < last.total) return;
    last.end = now_;
    last.real_end = Clock::now();
    last.over = true;
}

// One line for all transfers of a name, in the order of the first.
std::vector<std::string> Story::transfer_summary() const {
    std::vector<std::string> lines, names;
    for (const Transfer& first : transfers_) {
        if (std::find(names.begin(), names.end(), first.name) != names.end()) continue;
        names.push_back(first.name);
        uint64_t bytes = 0;
        Time time = 0;
        int times = 0;
        std::chrono::duration<double> real{0};
        for (const Transfer& transfer : transfers_) {
            if (transfer.name != first.name) continue;
            times++;
            bytes += transfer.bytes;
            time += transfer.end - transfer.begin;
            real += transfer.real_end - transfer.real_begin;
        }
        lines.push_back(format("%-18s %3d x  %11s  %9.3f s virtual %8.3f s real %8.1f MB/s",
                               first.name.c_str(), times, human_size(bytes).c_str(), seconds(time),
                               real.count(),
                               static_cast<double>(bytes) / 1e6 / std::max(real.count(), 1e-6)));
    }
    return lines;
}

std::string Story::trace() const {
    const std::vector<std::string> actors = {"daemon", "driver", "loader",
                                             "phone",  "kernel", "lab"};
    auto events = nlohmann::json::array();
    for (size_t i = 0; i < actors.size(); i++) {
        events.push_back({{"name", "thread_name"},
                          {"ph", "M"},
                          {"pid", 1},
                          {"tid", i},
                          {"args", {{"name", actors[i]}}}});
    }
    const auto add = [&](Time at, ptrdiff_t actor, const char* scope, const std::string& name) {
        events.push_back({{"name", name},
                          {"ph", "i"},
                          {"s", scope},
                          {"pid", 1},
                          {"tid", actor},
                          {"ts", static_cast<double>(at) / 1000}});
    };
    for (const Told& told : told_) {
        const auto actor = std::find(actors.begin(), actors.end(), told.from);
        add(told.at, actor - actors.begin(), "t", told.text);
    }
    add(now_ - start_, 0, "g", "end");
    const nlohmann::json all = {{"traceEvents", events}};
    return all.dump(1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace rvd::lab

#include "lab/run/story.h"

#include <fmt/core.h>
#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

namespace rvd::lab {

namespace {

constexpr uint64_t kLongTransfer = 16 << 20;

}  // namespace

Story::Story(FILE* out, const StoryStyle& style, Time start)
    : printer_(out, style, start), start_(start), now_(start) {}

void Story::restore(std::vector<std::string> log, std::vector<std::string> requests,
                    std::vector<std::string> violations) {
    log_ = std::move(log);
    requests_ = std::move(requests);
    violations_ = std::move(violations);
}

void Story::clear() {
    log_.clear();
    requests_.clear();
    entries_.clear();
    messages_.clear();
    transfers_.clear();
    ring_.clear();
}

void Story::add_message(const char* from, const char* to, const std::string& text) {
    messages_.push_back({now_ - start_, from, to, text});
    printer_.line(now_, from, to, text);
}

void Story::log_line(int level, const std::string& text) {
    static const std::string prefix = "lnkm: rvd: ";
    end_transfer();
    add_to_ring(level, text);
    std::string shown = text;
    if (starts_with(shown, prefix)) shown.erase(0, prefix.size());
    if (!shown.empty() && shown.back() == '\n') shown.pop_back();
    add_message("daemon", "", shown);
    log_.push_back(shown);
    add_entry(shown);
    if (on_line) on_line(shown);
}

void Story::request(const char* to, const std::string& text, bool shown) {
    if (shown) end_transfer();
    requests_.push_back(text);
    add_to_ring(6, std::string(to) + ": " + text);
    if (shown) add_message("daemon", to, text);
    add_entry(text);
    if (on_request) on_request(text);
}

void Story::add_entry(const std::string& text) {
    entries_.push_back(fmt::format("{:g} s ", seconds(now_ - start_)) + text);
}

void Story::violation(const std::string& text) {
    messages_.push_back({now_ - start_, "lab", "", "FAIL: " + text});
    violations_.push_back(fmt::format("{:.3f} s: {}", seconds(now_ - start_), text));
}

void Story::add_to_ring(int level, const std::string& text) {
    ring_ += fmt::format("<{}>[{:12.6f}] ", level, seconds(now_ - start_)) + text;
    if (ring_.empty() || ring_.back() != '\n') ring_ += '\n';
}

void Story::begin_transfer(const std::string& name, uint64_t total) {
    const auto known = std::find_if(transfers_.begin(), transfers_.end(),
                                    [&](const Transfers& each) { return each.name == name; });
    current_ = static_cast<size_t>(known - transfers_.begin());
    if (known == transfers_.end()) transfers_.push_back({name});
    transfers_[current_].times++;
    total_ = total;
    moved_ = 0;
    begin_ = now_;
    real_begin_ = Clock::now();
}

void Story::advance_transfer(uint64_t bytes) {
    transfers_[current_].bytes += bytes;
    const uint64_t before = std::exchange(moved_, moved_ + bytes);
    if (total_ < kLongTransfer || before / (total_ / 4) == moved_ / (total_ / 4)) return;
    add_message("loader", "",
                fmt::format("{}: {} of {}", transfers_[current_].name, human_size(moved_),
                            human_size(total_)));
}

void Story::end_transfer() {
    if (real_begin_ == Clock::time_point() || moved_ < total_) return;
    transfers_[current_].time += now_ - begin_;
    transfers_[current_].real += Clock::now() - real_begin_;
    real_begin_ = {};
}

std::string Story::transfer_summary() const {
    std::string lines = fmt::format("{:<16} {:>5} {:>11} {:>10} {:>10} {:>10}\n", "Transfers",
                                    "times", "size", "virtual s", "real s", "MB/s");
    for (const Transfers& all : transfers_)
        lines += fmt::format(
                "  {:<14} {:>5} {:>11} {:>10.3f} {:>10.3f} {:>10.1f}\n", all.name, all.times,
                human_size(all.bytes), seconds(all.time), all.real.count(),
                static_cast<double>(all.bytes) / 1e6 / std::max(all.real.count(), 1e-6));
    return lines;
}

std::string Story::trace() const {
    const std::vector<std::string> actors = {"daemon", "driver", "loader",
                                             "phone",  "kernel", "lab"};
    auto events = nlohmann::json::array();
    const auto add = [&](nlohmann::json event) {
        event["pid"] = 1;
        events.push_back(std::move(event));
    };
    for (size_t i = 0; i < actors.size(); i++)
        add({{"name", "thread_name"}, {"ph", "M"}, {"tid", i}, {"args", {{"name", actors[i]}}}});
    const auto microseconds = [](Time time) { return static_cast<double>(time) / 1000; };
    for (const Message& message : messages_) {
        const auto actor = std::find(actors.begin(), actors.end(), message.from) - actors.begin();
        add({{"name", message.text},
             {"ph", "i"},
             {"s", "t"},
             {"tid", actor},
             {"ts", microseconds(message.at)}});
    }
    add({{"name", "end"},
         {"ph", "i"},
         {"s", "g"},
         {"tid", 0},
         {"ts", microseconds(now_ - start_)}});
    const nlohmann::json all = {{"traceEvents", events}};
    return all.dump(1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace rvd::lab

// What the parts of a scenario are put together from; for this directory only.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "report/timeline/timeline.h"

namespace rvd::report {

using Events = std::vector<Event>;
using Keys = std::map<std::string, std::string>;  // with their values as TOML has them

struct Draft {
    std::string modem, start, end;
    std::vector<std::string> args, cmdline;
    std::map<std::string, std::string> properties, files;  // texts
    Keys phone, firmware, driver, dump, regions;
    std::vector<std::string> answers, loader, faults, timeline;  // tables within a line
};

// What the phone, its firmware and its modem are.
void describe_phone(const Events& events, const Report& report, Draft& draft);

// What failed: requests to the driver, words of the boot loader, system calls.
void describe_failures(const Events& events, const Report& report, Draft& draft);

// What happened to the phone, and how the evidence ends.
void describe_course(const Events& events, Draft& draft);

std::string quoted(std::string_view text);

// Bytes of the longest file of this kind, as far as there is one.
uint64_t saved_size(const Report& report, Kind kind, const std::string& detail = "");

// Whether the line is this step's and begins so.
bool says(const Event& event, std::string_view step, std::string_view start);

// Matches the line whatever its descriptor's number and its file's time are.
std::string pattern_of(const Event& event);

// How many lines from `from` to `at`, both included, match the pattern of the last.
size_t times_said(const Events& events, size_t at, size_t from = 0);

// The keys that put a deviation behind the line at `at`.
std::string after(const Events& events, size_t at);

}  // namespace rvd::report

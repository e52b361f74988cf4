// What the parts of a scenario are put together from; for this directory only.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "report/timeline/timeline.h"

namespace rvd::report {

using Events = std::vector<Event>;

// The scenario's one case, by the keys of the file. Their order is that of the file.
using Draft = nlohmann::ordered_json;

// What the phone and its modem were before anything failed.
void describe_phone(const Events& events, Draft& draft);
void describe_modem(const Events& events, const Report& report, Draft& draft);

// What failed: requests to the driver, words of the boot loader, system calls.
void describe_failures(const Events& events, const Report& report, Draft& draft);

// What happened to the phone, and how the evidence ends.
void describe_course(const Events& events, Draft& draft);

// Bytes of the longest file of this kind, as far as there is one.
uint64_t saved_size(const Report& report, Kind kind, const std::string& detail = "");

// Whether the line is this step's, or any's where none is given, and begins so.
bool says(const Event& event, std::string_view step, std::string_view start);

// Where the first such line from `from` on stands; events.size(): there is none.
size_t first_said(const Events& events, std::string_view step, std::string_view start,
                  size_t from = 0);

// The message behind its start.
std::string behind(const std::string& message, std::string_view start);

// Matches the line whatever its descriptor's number and its file's time are.
std::string pattern_of(const Event& event);

// The line at `at` under this key, and its number among those from `from` on that look the same.
Draft line_of(const char* key, const Events& events, size_t at, size_t from = 0);

}  // namespace rvd::report

// The words of a scenario that are no free text: what they can be, and what is said where they are
// something else.
#pragma once

#include <string>
#include <vector>

#include "lab/scenario/scenario.h"

namespace rvd::lab {

bool is_one_of(const std::string& word, const std::vector<std::string>& known);

// A path of the phone that a run may make or remove: absolute, without "..", in a directory that is
// the phone's and not the machine's.
bool is_phone_path(const std::string& path);
std::string not_a_phone_path(const std::string& path);

// An absolute path whose last part may be a pattern.
bool is_file_pattern(const std::string& path);
std::string not_a_file_pattern(const std::string& path);

// As Android has them; such a name is no path.
bool is_property_name(const std::string& name);

bool is_mode(const std::string& mode);
bool is_end(const std::string& end);
bool is_loader_place(const std::string& place);

// Requests to the driver, and what else the story calls a request; whether a pattern can match one.
std::vector<std::string> request_words();
bool can_be_request(const std::string& pattern);

// The entries of a firmware table; where it has none, `why` says so.
std::vector<FirmwareEntry> read_table(const std::string& text, std::string& why);

}  // namespace rvd::lab

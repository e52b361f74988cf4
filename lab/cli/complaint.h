// What is said of a command line that does not parse.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace rvd::lab {

// The first word that nothing is known of, an option before others, and the nearest that is known;
// or what the library has to say.
std::string complaint(const CLI::App& app, const CLI::ParseError& error);

}  // namespace rvd::lab

// The error message for a command line that does not parse. In a header, since each program
// compiles CLI11 only in the one file that includes it.
#pragma once

#include <CLI/CLI.hpp>
#include <algorithm>
#include <string>

#include "lab/base.h"

namespace rvd::lab {

// Names the first unknown option or word and the nearest known one; for other errors it is CLI11's
// own message.
inline std::string parse_error_message(const CLI::App& app, const CLI::ParseError& error) {
    std::vector<std::string> known;
    const auto chosen = app.get_subcommands();
    const std::vector<std::string> unknown = app.remaining(true);
    if (unknown.empty()) return error.what();
    const auto is_option = [](const std::string& word) { return word[0] == '-'; };
    auto word = std::find_if(unknown.begin(), unknown.end(), is_option);
    if (chosen.empty() && word == unknown.end()) {
        for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
            known.push_back(command->get_name());
    } else {
        for (const CLI::Option* option : (chosen.empty() ? &app : chosen[0])->get_options())
            known.push_back(option->get_name());
    }
    if (word == unknown.end()) word = unknown.begin();
    const std::string bare = word->substr(0, word->find('='));
    return "unknown argument \"" + bare + "\"" + did_you_mean(bare, known);
}

}  // namespace rvd::lab

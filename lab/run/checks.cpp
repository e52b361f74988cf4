#include "lab/run/checks.h"

#include <fmt/format.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>

namespace fs = std::filesystem;

namespace rvd::lab {

namespace {

constexpr char kLogDirectory[] = "/data/vendor/log/rvd";

// Each pattern matches in this order; other texts may stand between.
void check_order(const std::vector<std::string>& patterns, const std::vector<std::string>& seen,
                 const char* what, Story& story) {
    auto from = seen.begin();
    std::string after = "the start";
    for (const std::string& pattern : patterns) {
        const auto found = std::find_if(
                from, seen.end(), [&](const std::string& text) { return matches(pattern, text); });
        if (found == seen.end()) {
            story.violation(std::string("no ") + what + " \"" + pattern + "\" after " + after);
            return;
        }
        after = "\"" + pattern + "\"";
        from = found + 1;
    }
}

int64_t count_of(const std::string& pattern, const std::vector<std::string>& seen) {
    return std::count_if(seen.begin(), seen.end(),
                         [&](const std::string& text) { return matches(pattern, text); });
}

void check_none(const std::vector<std::string>& patterns, const std::vector<std::string>& seen,
                const char* what, Story& story) {
    for (const std::string& pattern : patterns) {
        if (count_of(pattern, seen) > 0)
            story.violation(fmt::format("unexpected {} \"{}\"", what, pattern));
    }
}

std::vector<std::string> find_files(const Phone& phone, const std::string& pattern) {
    std::vector<std::string> found;
    std::error_code none;
    const fs::path directory = fs::path(phone.path(pattern)).parent_path();
    for (const auto& entry : fs::directory_iterator(directory, none)) {
        const std::string inside = entry.path().string().substr(phone.root().size());
        if (matches(pattern, inside)) found.push_back(inside);
    }
    std::sort(found.begin(), found.end());
    return found;
}

// The expected content of a file, piece by piece.
using Bytes = std::function<void(uint64_t offset, void* out, size_t size)>;

bool file_equals(const std::string& path, uint64_t size, const Bytes& content) {
    constexpr size_t kPiece = 256 << 10;
    std::ifstream file(path, std::ios::binary);
    std::vector<char> seen(kPiece), wanted(kPiece);
    uint64_t done = 0;
    for (;;) {
        file.read(seen.data(), kPiece);
        const auto n = static_cast<size_t>(file.gcount());
        if (n == 0) return done == size;
        content(done, wanted.data(), n);
        if (memcmp(seen.data(), wanted.data(), n) != 0) return false;
        done += n;
    }
}

bool equals_named(const std::string& path, const FileExpectation& wanted,
                  const Scenario& scenario) {
    const std::string& name = wanted.equals;
    if (name == "erased") {
        return file_equals(path, fs::file_size(path),
                           [](uint64_t, void* out, size_t size) { memset(out, 0xFF, size); });
    }
    const Content content = content_of(scenario, name);
    const auto size =
            static_cast<uint64_t>(wanted.size.value_or(static_cast<int64_t>(content.size)));
    const uint64_t seed = content.seed;
    return file_equals(path, size, [seed](uint64_t offset, void* out, size_t count) {
        fill_seeded(seed, offset, out, count);
    });
}

void check_file(const FileExpectation& wanted, const std::string& inside, const Scenario& scenario,
                const Phone& phone, Story& story) {
    const std::string path = phone.path(inside);
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return story.violation(inside + " cannot be examined");
    if (wanted.size && status.st_size != *wanted.size)
        story.violation(
                fmt::format("{} has {} bytes, not {}", inside, status.st_size, *wanted.size));
    const std::string mode = fmt::format("{:04o}", status.st_mode & 07777u);
    if (!wanted.mode.empty() && mode != wanted.mode)
        story.violation(inside + " has mode " + mode + ", not " + wanted.mode);
    if (!wanted.text.empty() && !matches(wanted.text, read_file(path)))
        story.violation(inside + " doesn't read \"" + wanted.text + "\"");
    if (!wanted.equals.empty() && !equals_named(path, wanted, scenario))
        story.violation(inside + " differs from what the modem sent (" + wanted.equals + ")");
}

// Whether nothing around the daemon fails, and the modem delivers what it announces.
bool is_undisturbed(const Scenario& scenario) {
    if (scenario.firmware.truncate) return false;
    for (const auto& [name, region] : scenario.driver.regions) {
        if (region.delivers) return false;
    }
    return scenario.faults.empty() && scenario.loader.empty() && scenario.driver.answers.empty() &&
           scenario.missing.empty() && scenario.read_only.empty() && scenario.free_mb.empty() &&
           !scenario.full_after;
}

// Where nothing fails, the daemon logs no error but those that the scenario expects.
void check_errors(const Scenario& scenario, Story& story) {
    const Expectations& expect = scenario.expect;
    std::vector<std::string> expected = {
            "(ERR! *) open_srinfo_last: last_sr_info open fail",  // there is no record to hand back
            "(ERR! *) create_log_directory: * changed(0)"};       // it reports success that way
    expected.insert(expected.end(), expect.log.begin(), expect.log.end());
    for (const std::string& fact : expect.story)
        expected.push_back(fact.substr(std::min(fact.find(" s ") + 3, fact.size())));
    for (const auto& [pattern, times] : expect.times)
        expected.push_back(pattern);
    for (const std::string& line : story.log()) {
        if (line.find("ERR!") == std::string::npos) continue;
        if (std::none_of(expected.begin(), expected.end(),
                         [&](const std::string& pattern) { return matches(pattern, line); }))
            story.violation("unexpected error: " + line);
    }
}

}  // namespace

void check_obstacles(const Scenario& scenario, bool faults_alone, Story& story) {
    for (const Fault& fault : scenario.faults) {
        if (!fault.turn.came)
            story.violation("the fault in " + fault.call + " " + fault.path + " never triggered");
    }
    if (faults_alone) return;
    for (const Answer& answer : scenario.driver.answers) {
        if (!answer.turn.came)
            story.violation("the answer to " + answer.request + " was never given");
    }
    for (const Quirk& quirk : scenario.loader) {
        if (!quirk.turn.came)
            story.violation("the loader's deviation at " + quirk.at + " never triggered");
    }
}

void check_expectations(const Scenario& scenario, const Phone& phone, const Conduct& conduct,
                        Story& story) {
    const Expectations& expect = scenario.expect;
    if (is_undisturbed(scenario)) check_errors(scenario, story);
    check_order(expect.log, story.log(), "line", story);
    check_none(expect.no_log, story.log(), "line", story);
    check_order(expect.requests, story.requests(), "request", story);
    check_none(expect.no_requests, story.requests(), "request", story);
    check_order(expect.story, story.facts(), "fact", story);
    if (expect.whole_story && story.facts().size() != expect.story.size())
        story.violation(fmt::format("{} lines and requests, not {}", story.facts().size(),
                                    expect.story.size()));
    for (const auto& [pattern, times] : expect.times) {
        const int64_t seen = count_of(pattern, story.log());
        if (seen != times)
            story.violation(fmt::format("expected {} times, found {}: {}", times, seen, pattern));
    }
    for (const FileExpectation& wanted : expect.files) {
        const auto files = find_files(phone, wanted.path);
        if (static_cast<int64_t>(files.size()) != wanted.number)
            story.violation(fmt::format("expected {} files, found {}: {}", wanted.number,
                                        files.size(), wanted.path));
        for (const std::string& file : files)
            check_file(wanted, file, scenario, phone, story);
    }
    for (const std::string& pattern : expect.absent) {
        for (const std::string& file : find_files(phone, pattern))
            story.violation(file + " exists");
    }
    for (const auto& [name, value] : expect.properties) {
        const std::string seen = phone.property(name);
        if (seen != value)
            story.violation("property " + name + " is \"" + seen + "\", not \"" + value + "\"");
    }
    const bool quiet = conduct.end == "quiet" && (expect.end == "waits" || expect.end == "parked");
    if (!expect.end.empty() && conduct.end != expect.end && !quiet)
        story.violation("the run ended with \"" + conduct.end + "\", not \"" + expect.end + "\"");
    if (expect.lasts && conduct.lasted != *expect.lasts)
        story.violation(fmt::format("the run lasted {:.6f} s", seconds(conduct.lasted)));
}

void check_collected(const Scenario& scenario, const Phone& phone, Story& story) {
    // The rest of a packet that is read in part is lost, and the file is damaged.
    for (const Fault& fault : scenario.faults) {
        if (fault.call == "read" && fault.cut) return;
    }
    for (FileExpectation wanted : scenario.expect.files) {
        if (wanted.equals.empty()) continue;
        for (const std::string& file : find_files(phone, wanted.path)) {
            wanted.size = static_cast<int64_t>(fs::file_size(phone.path(file)));
            if (!equals_named(phone.path(file), wanted, scenario))
                story.violation(file + " differs from what the modem sent (" + wanted.equals + ")");
        }
    }
}

void check_whole(const Scenario& scenario, const Phone& phone, Story& story) {
    for (const FileExpectation& wanted : scenario.expect.files) {
        const auto files = find_files(phone, wanted.path);
        const auto whole = [&](const std::string& file) {
            return equals_named(phone.path(file), wanted, scenario);
        };
        if (!wanted.equals.empty() && std::none_of(files.begin(), files.end(), whole))
            story.violation("none is whole: " + wanted.path);
    }
}

void check_always(const Phone& phone, Story& story) {
    std::ifstream output(phone.path(kOutput));
    for (std::string line; std::getline(output, line);) {
        if (line.find("Sanitizer") != std::string::npos ||
            line.find("runtime error:") != std::string::npos)
            story.violation(line);
    }
}

std::vector<std::string> file_summary(const Phone& phone) {
    std::vector<std::string> lines;
    std::error_code none;
    for (const auto& entry : fs::recursive_directory_iterator(phone.path(kLogDirectory), none)) {
        if (!entry.is_regular_file()) continue;
        const fs::path inside = fs::relative(entry.path(), phone.path(kLogDirectory));
        lines.push_back(
                fmt::format("  {:<50} {:>12}", inside.string(), human_size(entry.file_size())));
    }
    std::sort(lines.begin(), lines.end());
    lines.insert(lines.begin(), fmt::format("Files in {}", kLogDirectory));
    return lines;
}

}  // namespace rvd::lab

#include "lab/run/checks.h"

#include <fmt/format.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

namespace fs = std::filesystem;

namespace rvd::lab {

namespace {

using Texts = std::vector<std::string>;

bool is_expected(const std::string& text, const Texts& patterns) {
    return std::any_of(patterns.begin(), patterns.end(),
                       [&](const std::string& pattern) { return matches(pattern, text); });
}

// The patterns match in this order, with any other texts in between.
void check_order(const char* what, const Texts& patterns, const Texts& seen, Story& story) {
    auto from = seen.begin();
    std::string after = "the start";
    for (const std::string& pattern : patterns) {
        const auto found = std::find_if(
                from, seen.end(), [&](const std::string& text) { return matches(pattern, text); });
        if (found == seen.end())
            return story.violation("no {} \"{}\" after {}", what, pattern, after);
        after = "\"" + pattern + "\"";
        from = found + 1;
    }
}

void check_none(const char* what, const Texts& patterns, const Texts& seen, Story& story) {
    for (const std::string& pattern : patterns) {
        if (count_matches(pattern, seen) > 0)
            story.violation("unexpected {} \"{}\"", what, pattern);
    }
}

// Whether the scenario injects no failure of any kind.
bool is_undisturbed(const Scenario& scenario) {
    const auto& regions = scenario.driver.regions;
    return std::none_of(regions.begin(), regions.end(),
                        [](const auto& region) { return region.second.delivers.has_value(); }) &&
           scenario.faults.empty() && scenario.loader.empty() && scenario.driver.answers.empty() &&
           scenario.missing.empty() && scenario.read_only.empty() && scenario.free_mb.empty() &&
           !scenario.disk && !scenario.firmware.truncate;
}

// The daemon logs only errors that the scenario expects.
void check_errors(const Expectations& expect, Story& story) {
    Texts expected = {"(ERR! *) open_srinfo_last: last_sr_info open fail",  // no record is pending
                      "(ERR! *) create_log_directory: * changed(0)"};       // logged on success
    expected.insert(expected.end(), expect.log.begin(), expect.log.end());
    for (const std::string& fact : expect.story)
        expected.push_back(fact.substr(std::min(fact.find(" s ") + 3, fact.size())));
    for (const auto& [pattern, times] : expect.times)
        expected.push_back(pattern);
    for (const std::string& line : story.log()) {
        if (line.find("ERR!") != std::string::npos && !is_expected(line, expected))
            story.violation("unexpected error: " + line);
    }
}

// The phone's paths that match a pattern. Only its last component may have wildcards.
Texts find_files(const Phone& phone, const std::string& pattern) {
    Texts found;
    std::error_code ignored;
    const fs::path directory = fs::path(phone.path(pattern)).parent_path();
    for (const auto& entry : fs::directory_iterator(directory, ignored)) {
        const std::string inside = phone.inside(entry.path());
        if (matches(pattern, inside)) found.push_back(inside);
    }
    std::sort(found.begin(), found.end());
    return found;
}

// Whether a file consists of the first `size` bytes of fill_seeded().
bool equals_seeded(const std::string& path, uint64_t seed, uint64_t size) {
    std::ifstream file(path, std::ios::binary);
    std::vector<char> actual(256 << 10), expected(actual.size());
    uint64_t done = 0;
    while (file) {
        file.read(actual.data(), static_cast<std::streamsize>(actual.size()));
        const auto n = static_cast<size_t>(file.gcount());
        fill_seeded(seed, done, expected.data(), n);
        if (memcmp(actual.data(), expected.data(), n) != 0) return false;
        done += n;
    }
    return done == size;
}

bool equals_named(const RunContext& run, const std::string& file, const FileExpectation& expected) {
    const std::string path = run.phone.path(file);
    if (expected.equals == "erased") return read_file(path).find_first_not_of('\xFF') == path.npos;
    const Content content = content_of(run.scenario, expected.equals);
    const uint64_t size = expected.size ? static_cast<uint64_t>(*expected.size) : content.size;
    return equals_seeded(path, content.seed, size);
}

void check_equal(const RunContext& run, const std::string& file, const FileExpectation& expected) {
    if (!expected.equals.empty() && !equals_named(run, file, expected))
        run.story.violation("{} differs from what the modem sent ({})", file, expected.equals);
}

void check_file(const RunContext& run, const std::string& file, const FileExpectation& expected) {
    const std::string path = run.phone.path(file);
    Story& story = run.story;
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return story.violation(file + " cannot be examined");
    const std::string mode = fmt::format("{:04o}", status.st_mode & 07777u);
    if (expected.size && status.st_size != *expected.size)
        story.violation("{} has {} bytes, not {}", file, status.st_size, *expected.size);
    if (!expected.mode.empty() && mode != expected.mode)
        story.violation("{} has mode {}, not {}", file, mode, expected.mode);
    if (!expected.text.empty() && !matches(expected.text, read_file(path)))
        story.violation("{} does not match \"{}\"", file, expected.text);
    check_equal(run, file, expected);
}

void check_files(const RunContext& run) {
    for (const FileExpectation& expected : run.scenario.expect.files) {
        const Texts files = find_files(run.phone, expected.path);
        if (static_cast<int64_t>(files.size()) != expected.number)
            run.story.violation("expected {} files, found {}: {}", expected.number, files.size(),
                                expected.path);
        for (const std::string& file : files)
            check_file(run, file, expected);
    }
    for (const std::string& pattern : run.scenario.expect.absent) {
        for (const std::string& file : find_files(run.phone, pattern))
            run.story.violation(file + " exists");
    }
}

void check_end(const Expectations& expect, const RunRecord& record, Story& story) {
    // With the real clock a waiting and a parked daemon cannot be told apart.
    const bool quiet = record.end == "quiet" && (expect.end == "waits" || expect.end == "parked");
    if (!expect.end.empty() && record.end != expect.end && !quiet)
        story.violation("the run ended with \"{}\", not \"{}\"", record.end, expect.end);
    if (expect.lasts && record.lasted != *expect.lasts)
        story.violation("the run lasted {:.6f} s", seconds(record.lasted));
}

}  // namespace

void check_at_power_on(const RunContext& run) {
    std::set<std::string> seen;
    for (const auto& [fd, path] : run.backend.descriptors()) {
        const bool own = is_expected(path, {kAndroidLog, "/dev/boot", "/dev/block/*",
                                            "/mnt/vendor/efs/*", run.scenario.nv_path()});
        if (!own || !seen.insert(path).second)
            run.story.violation("descriptor {} is open at power-on: {}", fd, path);
    }
}

void check_between_passes(const RunContext& run) {
    const auto open = run.backend.descriptors();
    // A sleep with a node open is within a pass.
    if (std::any_of(open.begin(), open.end(), [](const auto& descriptor) {
            return descriptor.second == "/dev/boot" || descriptor.second == "/dev/dump";
        }))
        return;
    for (const auto& [fd, path] : open) {
        if (path != kAndroidLog) run.story.violation("descriptor {} is left open: {}", fd, path);
    }
}

void check_faults(const RunContext& run) {
    for (const Fault& fault : run.scenario.faults) {
        if (!fault.trigger.fired)
            run.story.violation("the fault in {} {} never triggered", fault.call, fault.path);
    }
}

void check_triggers(const RunContext& run) {
    check_faults(run);
    for (const Answer& answer : run.scenario.driver.answers) {
        if (!answer.trigger.fired)
            run.story.violation("the answer to {} was never given", answer.request);
    }
    for (const Quirk& quirk : run.scenario.loader) {
        if (!quirk.trigger.fired)
            run.story.violation("the loader's deviation at {} never triggered", quirk.at);
    }
}

void check_expectations(const RunContext& run, const RunRecord& record) {
    const Expectations& expect = run.scenario.expect;
    Story& story = run.story;
    if (is_undisturbed(run.scenario)) check_errors(expect, story);
    check_order("line", expect.log, story.log(), story);
    check_none("line", expect.no_log, story.log(), story);
    check_order("request", expect.requests, story.requests(), story);
    check_none("request", expect.no_requests, story.requests(), story);
    check_order("story entry", expect.story, story.entries(), story);
    if (expect.whole_story && story.entries().size() != expect.story.size())
        story.violation("{} lines and requests, not {}", story.entries().size(),
                        expect.story.size());
    for (const auto& [pattern, times] : expect.times) {
        const int64_t seen = count_matches(pattern, story.log());
        if (seen != times) story.violation("expected {} times, found {}: {}", times, seen, pattern);
    }
    check_files(run);
    for (const auto& [name, value] : expect.properties) {
        const std::string seen = run.phone.property(name);
        if (seen != value) story.violation("property {} is \"{}\", not \"{}\"", name, seen, value);
    }
    check_end(expect, record, story);
}

void check_prefixes(const RunContext& run) {
    // A short read drops the rest of its packet, which damages the file.
    const auto& faults = run.scenario.faults;
    if (std::any_of(faults.begin(), faults.end(),
                    [](const Fault& fault) { return fault.call == "read" && fault.cut; }))
        return;
    for (FileExpectation expected : run.scenario.expect.files) {
        for (const std::string& file : find_files(run.phone, expected.path)) {
            expected.size = static_cast<int64_t>(fs::file_size(run.phone.path(file)));
            check_equal(run, file, expected);
        }
    }
}

void check_any_complete(const RunContext& run) {
    for (const FileExpectation& expected : run.scenario.expect.files) {
        const Texts files = find_files(run.phone, expected.path);
        const auto is_complete = [&](const std::string& file) {
            return equals_named(run, file, expected);
        };
        if (!expected.equals.empty() && std::none_of(files.begin(), files.end(), is_complete))
            run.story.violation("no file is complete: " + expected.path);
    }
}

void check_sanitizers(const RunContext& run) {
    std::ifstream output(run.phone.path(kOutput));
    for (std::string line; std::getline(output, line);) {
        if (line.find("Sanitizer") != std::string::npos ||
            line.find("runtime error:") != std::string::npos)
            run.story.violation(line);
    }
}

}  // namespace rvd::lab

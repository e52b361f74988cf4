// What the virtual phone leaves behind, reported whole, and cut anywhere.
#include <gtest/gtest.h>

#ifdef RVD_LAB_BINARY

#include <regex>

#include "report/print/tables.h"
#include "report/tests/support.h"

namespace rvd::report {
namespace {

Report report_of(const std::string& path) {
    Evidence evidence(path);
    return examine(evidence);
}

// Logs grow with every line that the daemon learns to say; the rest of a report does not.
std::string without_log_sizes(const std::string& text) {
    static const std::regex log_size(
            R"((  \S*(?:klog|cp_boot|rvd_only|dmesg|dump_fail|android|_log)\S* +)[\d.]+ (?:KiB|bytes))");
    return std::regex_replace(text, log_size, "$1(size)");
}

// RVD_REPORT_UPDATE=1 writes what there is now, for the reader to judge.
void expect_golden(const std::string& name, const std::string& text) {
    const std::string path = RVD_ROOT "/report/tests/golden/" + name;
    if (getenv("RVD_REPORT_UPDATE") != nullptr) std::ofstream(path) << text;
    EXPECT_EQ(text, read_whole(path)) << path;
}

TEST(Golden, ReportsOfRealRuns) {
    struct {
        const char *golden, *file, *name;
    } const rows[] = {
            {"demo.txt", "lab/scenarios/demo.toml", "demo tq720"},
            {"silent.txt", "tests/scenarios/dump_link.toml", "the modem stops answering in step 2"},
            {"external.txt", "tests/scenarios/external_dump.toml", "a complete dump"},
    };
    for (const auto& row : rows) {
        const TemporaryDirectory root;
        play(root, row.file, row.name);
        Evidence evidence(root.path().string());
        Report report = examine(evidence);
        const std::vector<Event> events = merge_lines(report, evidence);
        expect_golden(row.golden,
                      without_log_sizes(screen(report, find_troubles(events), {false})));
    }
}

TEST(Golden, TablesOfRealRuns) {
    const TemporaryDirectory demo, silent;
    play(demo, "lab/scenarios/demo.toml", "demo vk880");
    play(silent, "tests/scenarios/dump_link.toml", "the modem stops answering in step 2");
    const Report first = report_of(demo.path().string());
    const Report second = report_of(silent.path().string());
    bool alike = true;
    const std::string differing =
            compare(first.incidents.back(), second.incidents.back(), {false}, alike);
    EXPECT_FALSE(alike);
    std::string text = records_table(first, {false}) + differing;
    for (const Selection& selection :
         {Selection{}, Selection{parse_time("2020-10-01 12:32"), "PREFETCH", true},
          Selection{{}, "assert", false}})
        text += list(second, selection, {false});
    expect_golden("tables.txt", text);
    compare(second.incidents[1], second.incidents[2], {false}, alike);
    EXPECT_TRUE(alike);
}

// Where to cut: everywhere in a short file, at the lines' ends and in between in a longer one.
std::vector<uint64_t> cuts(const std::string& content) {
    std::vector<uint64_t> found;
    for (size_t at = 0; at < content.size(); at++) {
        const bool edge = content[at] == '\n' || (at > 0 && content[at - 1] == '\n') ||
                          content[at] == '\0' || at + 1 == content.size();
        if (content.size() < 500 || at % 1999 == 0 || (edge && content.size() < 4000))
            found.push_back(at);
    }
    return found;
}

State state_of(const Report& report, const std::string& path) {
    for (const JudgedFile& file : report.others) {
        if (file.file.path == path) return file.verdict.state;
    }
    for (const Incident& incident : report.incidents) {
        for (const JudgedFile& file : incident.files) {
            if (file.file.path == path) return file.verdict.state;
        }
    }
    ADD_FAILURE() << path << " is gone";
    return State::kMissing;
}

TEST(Property, AFileThatIsCutIsNeverCalledComplete) {
    struct {
        const char *file, *name;
    } const rows[] = {
            {"tests/scenarios/dump.toml", "a complete dump"},
            {"tests/scenarios/external_dump.toml", "a complete dump"},
            {"tests/scenarios/dump_parts.toml", "a region that ends early*"},
            {"tests/scenarios/silent_reset.toml",
             "the integrated modem*s record is stored at a dump before the regions"},
    };
    size_t tried = 0;
    for (const auto& row : rows) {
        const TemporaryDirectory root;
        const std::string evidence = play(root, row.file, row.name);
        Evidence listed(evidence);
        const Report whole = report_of(evidence);
        for (const File& file : listed.files()) {
            if (state_of(whole, file.path) != State::kComplete) continue;
            const std::filesystem::path path = root.path() / file.path;
            const std::string content = read_whole(path);
            const std::vector<uint64_t> places = cuts(content);
            // From the end, so that each cut takes more of the same file.
            for (auto place = places.rbegin(); place != places.rend(); ++place) {
                std::filesystem::resize_file(path, *place);
                ASSERT_NE(state_of(report_of(evidence), file.path), State::kComplete)
                        << row.name << ": " << file.path << " cut to " << *place;
                tried++;
            }
            std::ofstream(path, std::ios::binary) << content;
        }
    }
    EXPECT_GT(tried, 1000u);
}

}  // namespace
}  // namespace rvd::report

#endif

// Lines from several files in one order, and what is told of them.
#include "report/timeline/timeline.h"

#include <gtest/gtest.h>

#include "report/findings/findings.h"
#include "report/parse/words.h"
#include "report/tests/support.h"

namespace rvd::report {
namespace {

std::string kernel_lines(std::initializer_list<std::pair<int, const char*>> lines) {
    std::string text;
    for (const auto& [second, line] : lines)
        text += "<6>[" + std::to_string(second) + ".000000] lnkm: rvd: " + line + "\n";
    return text + '\0';
}

std::vector<std::string> merged(const TemporaryDirectory& directory) {
    Evidence evidence(directory.path().string());
    Report report = examine(evidence);
    std::vector<std::string> texts;
    for (const Event& event : merge_lines(report, evidence))
        texts.push_back((event.device_started ? "* " : "") + event.text);
    return texts;
}

TEST(Merging, SavesThatOverlapAndLogsWithoutTimesGiveOneOrder) {
    const TemporaryDirectory directory;
    directory.write("cp_boot_umts_202010011230_10.log",
                    kernel_lines({{1, "main: a"}, {10, "main: b"}, {10, "main: b"}}));
    directory.write("cp_boot_done_umts_202010011230_20.log", kernel_lines({{10, "main: b"},
                                                                           {10, "main: b"},
                                                                           {10, "main: -"},
                                                                           {20, "main: c"},
                                                                           {20, "main: e"}}));
    // The kernel has started anew.
    directory.write("cp_boot_umts_202010011240_01.log", kernel_lines({{1, "main: f"}}));
    EXPECT_EQ(merged(directory),
              (std::vector<std::string>{"main: a", "main: b", "main: b", "main: -", "main: c",
                                        "main: e", "* main: f"}));
    directory.write("android.log",
                    "D/boot: rvd: main: a\nD/boot: rvd: main: b\nD/boot: rvd: main: b\n"
                    "D/boot: rvd: main: -\nD/boot: rvd: main: c\nD/boot: rvd: main: d\nD/boot: "
                    "rvd: main: e\n"
                    "D/boot: rvd: main: f\nD/boot: rvd: main: g\n");
    EXPECT_EQ(merged(directory),
              (std::vector<std::string>{"main: a", "main: b", "main: b", "main: -", "main: c",
                                        "main: d", "main: e", "* main: f", "main: g"}));
}

TEST(Merging, ALineThatStandsFurtherOnAsWellIsNotTakenForIt) {
    const TemporaryDirectory directory;
    directory.write("cp_boot_umts_202010011230_10.log",
                    kernel_lines({{1, "main: a"}, {2, "main: c"}, {10, "main: b"}}));
    directory.write("android.log",
                    "D/boot: rvd: main: a\nD/boot: rvd: main: b\nD/boot: rvd: main: c\n"
                    "D/boot: rvd: main: b\n");
    // Said by the crash before as well.
    directory.write("cpcrash_umts_log_20201001-1231.log", "main: c\n");
    EXPECT_EQ(merged(directory),
              (std::vector<std::string>{"main: a", "main: b", "main: c", "main: b", "main: c"}));
}

std::vector<Event> events_of(std::initializer_list<std::pair<int, const char*>> lines) {
    std::vector<Event> events;
    for (const auto& [second, text] : lines) {
        events.emplace_back();
        events.back().at = second * 1'000'000;
        events.back().text = text;
    }
    return events;
}

TEST(Telling, CountsRepetitionsAndSaysSilences) {
    struct {
        std::vector<Event> events;
        std::vector<std::string> told;
    } const rows[] = {
            {events_of({{0, "a"}, {9, "b"}, {39, "c"}}), {"a", "b", "30 s of silence", "c"}},
            {events_of({{0, "a"}, {10, "b"}}), {"a", "10 s of silence", "b"}},
            {events_of({{0, "x"}, {0, "x"}, {0, "x"}, {0, "x"}, {0, "x"}, {0, "x"}}),
             {"x", "the line before 5 times more"}},
            {events_of({{0, "main: Call boot start"},
                        {0, "main: start boot fail"},
                        {1, "main: Call boot start"},
                        {1, "main: start boot fail"},
                        {2, "main: Call boot start"},
                        {2, "main: start boot fail"},
                        {3, "main: Call boot start"},
                        {3, "d"}}),
             {"main: Call boot start", "main: start boot fail", "boot retried 2 times in 2 s",
              "main: Call boot start", "d"}},
            {events_of({{0, "x (fd 5)"}, {0, "x (fd 6)"}, {0, "x (fd 7)"}}),
             {"x (fd 5)", "the line before 2 times more"}},
            {events_of({{0, "x"}, {0, "x"}}), {"x", "x"}},
    };
    for (const auto& row : rows) {
        std::vector<std::string> told;
        for (const Entry& entry : tell(row.events))
            told.push_back(entry.event != nullptr ? entry.event->text : entry.text);
        EXPECT_EQ(told, row.told);
    }
}

TEST(Troubles, AreFoundByTheirLinesWithTheirNumber) {
    std::vector<Event> events(4);
    events[0].message = "ERR! DEV(/dev/x) open fail";
    events[1].message = "ERR! DEV(/dev/x) opened";
    events[2].message = "ERR! resp 0xA00C != exp 0xA00D";
    events[3].message = "ERR! DEV(/dev/y) open fail";
    const std::vector<Finding> found = find_troubles(events);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].first, &events[0]);
    EXPECT_EQ(found[0].times, 2u);
    EXPECT_EQ(found[1].first, &events[2]);
    EXPECT_TRUE(has_pattern("abc", "a...c"));
    EXPECT_TRUE(has_pattern("xaby", "ab..."));
    EXPECT_FALSE(has_pattern("acb", "a...b...c"));
}

TEST(Meanings, OfNumbersInLines) {
    struct {
        const char *line, *meaning;
    } const rows[] = {
            {"std_udl_req_resp: request:0x0000900D", "DONE of stage 0, asked"},
            {"std_udl_req_resp: request:0x00009D03", "step 3 of the dump, asked"},
            {"std_udl_req_resp: request:0x00009D0D", "DONE of stage 13 (dump), asked"},
            {"std_udl_req_resp: ERR! resp 0xA10C != exp 0xA00D",
             "CRC of stage 1, answered instead of DONE of stage 0, answered"},
            {"std_udl_req_resp: ERR! resp 0xFFFFFFFF != exp 0xA00D", ""},
            {"std_ul_recv_data: ERR! [step 2] std_ul_rx_frame fail (ret -5)",
             "EIO, Input/output error"},
            {"std_boot_power_on: ERR! IOCTL_POWER_ON fail (-1)", ""},
            {"status_loop: get event 9", "crash, by the watchdog"},
            {"make_cp_crash_reason: reason owner:-1", "nobody known"},
            {"std_security_req: security_req: c:13000:200:0", "verify VSS"},
    };
    for (const auto& row : rows) {
        const auto line = parse_line(Sink::kCrashLog, row.line);
        ASSERT_TRUE(line) << row.line;
        EXPECT_EQ(meaning_of(*line), row.meaning) << row.line;
    }
}

}  // namespace
}  // namespace rvd::report

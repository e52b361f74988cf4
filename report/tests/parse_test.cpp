// Names, lines and records, good and bad.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "report/evidence/evidence.h"
#include "report/parse/lines.h"
#include "report/parse/records.h"
#include "report/print/people.h"

namespace rvd::report {
namespace {

TEST(Names, SayKindModemDetailAndTime) {
    struct {
        const char* name;
        Kind kind;
        const char *modem, *detail, *time;
    } const rows[] = {
            {"cpcrash_umts_log_20201001-1231.log", Kind::kCrashLog, "umts", "", "2020-10-01 12:31"},
            {"cpcrash_nr_info_vk880_20201001-1231.log", Kind::kInfo, "nr", "vk880",
             "2020-10-01 12:31"},
            {"cpcrash_nr_dump_20201001-1231.log", Kind::kDump, "nr", "", "2020-10-01 12:31"},
            {"cpcrash_cp_btl_dump_umts_20201001-1231.log", Kind::kRegion, "umts", "cp_btl",
             "2020-10-01 12:31"},
            {"cpcrash_umts_dump_fail_202010011231_17.log", Kind::kKernelFail, "umts", "",
             "2020-10-01 12:31:17"},
            {"cp_boot_done_nr_202010011231_17.log", Kind::kKernelBooted, "nr", "",
             "2020-10-01 12:31:17"},
            {"dmesg_202010011231_17.log", Kind::kKernelDmesg, "", "", "2020-10-01 12:31:17"},
            {"sr_info_nr", Kind::kRecords, "nr", "", ""},
            {".sr_info_umts.bak", Kind::kOlderRecords, "umts", "", ""},
            {"last_sr_info_umts", Kind::kWaitingRecord, "umts", "", ""},
            {"android.log", Kind::kAndroidLog, "", "", ""},
            {"cpcrash_umts_log_20201301-1231.log", Kind::kUnknown, "", "", ""},
            {"cpcrash_umts_log_20201001-2431.log", Kind::kUnknown, "", "", ""},
            {"cpcrash_lte_dump_20201001-1231.log", Kind::kUnknown, "", "", ""},
            {"cpcrash_\033[2J_dump_umts_20201001-1231.log", Kind::kUnknown, "", "", ""},
            {"_20201001-1231.log", Kind::kUnknown, "", "", ""},
    };
    for (const auto& row : rows) {
        const Name name = parse_name(row.name);
        EXPECT_EQ(name.kind, row.kind) << row.name;
        EXPECT_EQ(name.modem, row.modem) << row.name;
        EXPECT_EQ(name.detail, row.detail) << row.name;
        EXPECT_EQ(name.time < 0 ? "" : format_time(name.time, name.to_the_minute), row.time);
    }
}

TEST(Lines, AreTheDaemonsFromEverySink) {
    struct {
        Sink sink;
        const char* line;
        KernelTime at;
        const char *error, *tag, *message;
    } const rows[] = {
            {Sink::kKernel, "<6>[   77.400000] lnkm: rvd: main: Call boot start", 77400000, "",
             "main", "Call boot start"},
            {Sink::kKernel, "[    0.000001] [3:  rvd:  812] lnkm: rvd: dump: x", 1, "", "dump",
             "x"},
            {Sink::kKernel, "<3>[1.000000] lnkm: rvd: (ERR! I/O error) dump: ERR! y", 1000000,
             "I/O error", "dump", "ERR! y"},
            {Sink::kAndroid, "D/boot: rvd: main: a: b", kNoTime, "", "main", "a: b"},
            {Sink::kAndroid, "10-01 12:31:17.123  1001   812   812 E boot    : rvd: (ERR! X) t: m",
             kNoTime, "X", "t", "m"},
            {Sink::kCrashLog, "get_log_dump: size:100", kNoTime, "", "get_log_dump", "size:100"},
            {Sink::kCrashLog, "empty:", kNoTime, "", "empty", ""},
    };
    for (const auto& row : rows) {
        const auto line = parse_line(row.sink, row.line);
        ASSERT_TRUE(line) << row.line;
        EXPECT_EQ(line->at, row.at) << row.line;
        EXPECT_EQ(line->error_text, row.error);
        EXPECT_EQ(line->tag, row.tag);
        EXPECT_EQ(line->message, row.message);
    }
    struct {
        const char* line;
        bool fails;
    } const results[] = {{"(ERR! I/O error) a: x", true},
                         {"a: ERR! x", true},
                         {"a: x ERR!", false},
                         {"(ERR! Success) a: log path (/x) gid(1007) changed(0)", false},
                         {"(ERR! Success) a: log path (/x) gid(1007) changed(-1)", true}};
    for (const auto& row : results)
        EXPECT_EQ(parse_line(Sink::kCrashLog, row.line)->fails(), row.fails) << row.line;
    // A save ends with a zero byte, another may follow in the same file; a log may have come by
    // mail.
    std::string seen;
    each_line(Sink::kKernel,
              std::string("[1.000000] lnkm: rvd: a: x\n\0[2.000000] lnkm: rvd: b: y\r\n", 56),
              [&](const Line& line) { seen += std::string(line.whole) + ';'; });
    EXPECT_EQ(seen, "a: x;b: y;");
    EXPECT_FALSE(parse_line(Sink::kKernel, "<6>[1.000000] lnkm: modem is up"));
    EXPECT_FALSE(parse_line(Sink::kAndroid, "D/boot: something: else"));
    EXPECT_FALSE(parse_line(Sink::kCrashLog, "a sentence with: a colon"));
}

// The second record's rows are as the daemon writes them, with a text that ends before its row.
constexpr char kTwoRecords[] =
        "[2020-10-01 12:31:06]\n"
        "0000:00000001 00000000 00000000 00000000 ................\n"
        "0010:7b434241 00000000 00000000 00000000 ABC{............\n"
        "\n"
        "[2020-10-01 12:32:06]\n"
        "0000:00000000 00000000 00000000 00000000 ................\n"
        "0010:564a227b 7d225245 00000000 00000000 {\"JVER\"}........\n"
        "\n";

TEST(RecordLog, IsTakenApartIntoRecords) {
    const Records found = read_records(kTwoRecords);
    EXPECT_EQ(found.damage, "");
    ASSERT_EQ(found.records.size(), 2u);
    EXPECT_EQ(found.records[0].header(), std::string("\1") + std::string(15, '\0'));
    EXPECT_EQ(found.records[1].text(), "{\"JVER\"}");
    EXPECT_EQ(format_time(found.records[1].time), "2020-10-01 12:32:06");
    EXPECT_EQ(found.records[1].offset, record_length(32));
}

TEST(RecordLog, DamageIsNamedWithItsOffset) {
    const std::string whole = kTwoRecords;
    struct {
        size_t at;
        std::string cut, in_place;
        const char* damage;
    } const rows[] = {
            {whole.size() - 1, "\n", "", "a record without its end at offset 277"},
            {27, "00000001", "0000000g", "not a row at offset 22"},
            {80, "0010", "0020", "a row out of order at offset 80"},
            {121, "ABC", "ABX", "a row whose text is not that of its words at offset 80"},
            {1, "2020", "2o2o", "an invalid time at offset 0"},
            {22, "0000:", "0000", "a row of the wrong length at offset 22"},
    };
    for (const auto& row : rows) {
        std::string text = whole;
        ASSERT_EQ(text.substr(row.at, row.cut.size()), row.cut);
        EXPECT_EQ(read_records(text.replace(row.at, row.cut.size(), row.in_place)).damage,
                  row.damage);
    }
}

TEST(RecordLog, ShowsBytesAsTheDaemonDoesAndEndsSomewhere) {
    const std::string header = "[2020-10-01 12:31:06]\n";
    EXPECT_EQ(
            read_records(header + "0000:7e7d2221 20414243 00000000 ff800000 .\"}.CBA.........\n\n")
                    .damage,
            "");
    std::string rows;
    for (int at = 0; at <= 4096; at += 16)
        rows += fmt::format("{:04x}:00000000 00000000 00000000 00000000 ................\n", at);
    EXPECT_EQ(read_records(header + rows + "\n").damage,
              "more rows than a record has at offset 14870");
}

TEST(People, ReadSizesAndTimes) {
    struct {
        uint64_t bytes;
        const char* text;
    } const sizes[] = {{0, "0 bytes"},          {1, "1 byte"},
                       {1023, "1023 bytes"},    {1024, "1 KiB"},
                       {31232, "30.5 KiB"},     {1u << 20, "1 MiB"},
                       {UINT32_MAX, "4.0 GiB"}, {uint64_t{2048} << 30, "2048 GiB"}};
    for (const auto& row : sizes)
        EXPECT_EQ(people_size(row.bytes), row.text);
    struct {
        KernelTime micros;
        const char *span, *stamp;
    } const times[] = {{0, "0 ms", "0.000000"},
                       {999'999, "999 ms", "0.999999"},
                       {14'000'000, "14 s", "14.000000"},
                       {34'400'001, "34.4 s", "34.400001"},
                       {125'000'000, "2 min 5 s", "125.000000"},
                       {3'660'000'000, "1 h 1 min", "3660.000000"}};
    for (const auto& row : times) {
        EXPECT_EQ(people_span(row.micros), row.span);
        EXPECT_EQ(people_stamp(row.micros), row.stamp);
    }
    for (const char* time :
         {"2020-02-30", "2020-1-1", "2020-10-01 24:00", "2020-10-01 12", "12:31"})
        EXPECT_FALSE(parse_time(time)) << time;
    EXPECT_EQ(parse_time("2020-10-01T12:31"), *parse_time("2020-10-01") + 751 * 60);
}

TEST(ForeignText, IsEscapedBeforeItReachesATerminal) {
    EXPECT_EQ(printable("a\033[31mb\r\n\x9b\x7f"), "a\\x1b[31mb\\x0d\\x0a\\x9b\\x7f");
    EXPECT_EQ(printable("caf\xc3\xa9 \xe2\x82\xac"), "caf\xc3\xa9 \xe2\x82\xac");
    // C1 controls, overlong forms, halves of a sequence, what turns the line around.
    EXPECT_EQ(printable("\xc2\x9b"), "\\xc2\\x9b");
    EXPECT_EQ(printable("\xc0\xaf"), "\\xc0\\xaf");
    EXPECT_EQ(printable("\xe2\x82"), "\\xe2\\x82");
    EXPECT_EQ(printable("\xe2\x80\xae"), "\\xe2\\x80\\xae");
}

TEST(PathsOfAnArchive, MayNotLeaveIt) {
    for (const char* path : {"../x", "a/../../x", "/etc/x", "a/..", "..", ""})
        EXPECT_TRUE(leads_outside(path)) << path;
    for (const char* path : {"x", "a/b", "a/..b", "..a"})
        EXPECT_FALSE(leads_outside(path)) << path;
}

}  // namespace
}  // namespace rvd::report

// Verdicts on a small crash, made up line by line, with one thing wrong at a time.
#include <gtest/gtest.h>

#include <map>

#include "report/incident/incident.h"
#include "report/tests/support.h"

namespace rvd::report {
namespace {

constexpr char kLog[] = "cpcrash_umts_log_20201001-1231.log";
constexpr char kInfo[] = "cpcrash_umts_info_tq720_20201001-1231.log";
constexpr char kDump[] = "cpcrash_umts_dump_20201001-1231.log";
constexpr char kVss[] = "cpcrash_vss_dump_umts_20201001-1232.log";
constexpr char kBefore[] = "cpcrash_umts_klog_before_202010011231_17.log";
constexpr char kAfter[] = "cpcrash_umts_klog_after_202010011233_02.log";

constexpr char kSentence[] = ": CP Crash by CP - UMTS: abort";

const std::string kCrashLines =
        "std_dump_write_versions: LNKM version: lnkm 4.19\n"
        "std_dump_write_versions: Radio Vault Daemon (RVD) version: RVD-V3-20200928R1\n"
        "std_dump_prepare_args: /data/vendor/log/rvd/cpcrash_umts_log_20201001-1231.log opened "
        "(fd 7)\n"
        "std_dump_prepare_args: /data/vendor/log/rvd/cpcrash_umts_info_tq720_20201001-1231.log "
        "opened (fd 8)\n"
        "std_dump_prepare_args: /data/vendor/log/rvd/cpcrash_umts_dump_20201001-1231.log opened "
        "(fd 9)\n"
        "get_log_dump: size:100\n"
        "get_log_dump: /data/vendor/log/rvd/cpcrash_vss_dump_umts_20201001-1232.log opened (fd "
        "12)\n"
        "get_log_dump: /data/vendor/log/rvd/cpcrash_vss_dump_umts_20201001-1232.log Complete! "
        "(100 bytes)\n"
        "std_ul_recv_info: DUMP INFO saved\n"
        "std_ul_recv_data: [step 1] num_frames = 2\n"
        "std_ul_recv_data: [step 1] command = 0xAD01\n"
        "std_ul_recv_data: [step 1] saved = 3000\n"
        "std_dump_receive_cp_dump: DUMP DATA saved\n";

// The same lines as the kernel keeps them, those of before in front.
std::string kernel_log(const std::string& crash_lines) {
    std::string text =
            "<6>[   20.000000] lnkm: rvd: main: Boot up process done!!!\n"
            "<6>[   77.000000] lnkm: rvd: status_loop: CP status CRASH\n";
    std::istringstream lines(crash_lines);
    for (std::string line; std::getline(lines, line);)
        text += "<6>[   78.000000] lnkm: rvd: " + line + "\n";
    text += "<6>[   79.000000] lnkm: rvd: make_cp_crash_reason: reason owner:0\n"
            "<6>[   79.000000] lnkm: rvd: make_cp_crash_reason: CP CRASH" +
            std::string(kSentence) +
            "\n<6>[   79.000000] lnkm: rvd: std_ul_recv_info: dump_size = 3000\n";
    return text + '\0';
}

using Files = std::map<std::string, std::string>;

Files whole_crash() {
    return {{kLog, kCrashLines},
            {kInfo, kSentence},
            {kDump, std::string(3000, 'd')},
            {kVss, std::string(100, 'v')},
            {kBefore, kernel_log("")},
            {kAfter, kernel_log(kCrashLines)}};
}

Report report_of(const Files& files) {
    const TemporaryDirectory directory;
    for (const auto& [name, content] : files)
        directory.write(name, content);
    Evidence evidence(directory.path().string());
    return examine(evidence);
}

const Verdict& verdict_of(const Report& report, const std::string& name) {
    for (const JudgedFile& file : report.incidents.at(0).files) {
        if (file.file.path == name) return file.verdict;
    }
    throw std::out_of_range(name);
}

TEST(Verdicts, AWholeCrashIsComplete) {
    const Report report = report_of(whole_crash());
    ASSERT_EQ(report.incidents.size(), 1u);
    const Incident& incident = report.incidents[0];
    EXPECT_FALSE(report.anything_lost());
    for (const JudgedFile& file : incident.files)
        EXPECT_EQ(file.verdict.state, State::kComplete) << file.file.path;
    EXPECT_EQ(incident.origin, "CP");
    EXPECT_EQ(incident.reason, "UMTS: abort");
    EXPECT_EQ(incident.owner, 0);
    EXPECT_EQ(format_time(incident.time), "2020-10-01 12:31:17");
    EXPECT_EQ(incident.kernel_time, 77'000'000);
    EXPECT_EQ(incident.since_boot, 57'000'000);
    EXPECT_EQ(incident.driver_version, "lnkm 4.19");
}

TEST(Verdicts, OneThingWrongAtATime) {
    const size_t last_line = kCrashLines.find("std_dump_receive_cp_dump");
    struct {
        const char* what;
        const char* name;
        std::string content;
        State state;
        bool lost;
        std::string why;
    } const rows[] = {
            {"dump cut in a step", kDump, std::string(2500, 'd'), State::kShort, true,
             "500 bytes missing, in step 1, frame 2 of 2"},
            {"dump with the end of an older one", kDump, std::string(3001, 'd'), State::kStaleTail,
             false, "1 byte behind its end are of an older file"},
            {"no dump", kDump, "", State::kEmpty, true, "2.9 KiB missing, in step 1, frame 1 of 2"},
            {"region cut", kVss, std::string(40, 'v'), State::kShort, true, "60 bytes missing"},
            {"sentence cut", kInfo, ": CP Crash by CP - UM", State::kShort, true,
             "9 bytes missing"},
            {"another sentence", kInfo, ": CP Crash by RIL - x", State::kUnverified, false,
             "the kernel log has another sentence"},
            {"crash log cut at a line", kLog, kCrashLines.substr(0, last_line), State::kShort, true,
             "1 of its 13 lines missing"},
            {"crash log with the end of an older one", kLog, kCrashLines + "aved = 7\n",
             State::kStaleTail, false, "9 bytes behind its end are of an older file"},
            {"kernel log without its mark", kAfter, "<6>[    1.000000] x\n", State::kShort, true,
             "its end mark is missing"},
            {"no kernel log", kAfter, "", State::kEmpty, true, "the kernel gave no log"},
    };
    for (const auto& row : rows) {
        Files files = whole_crash();
        files[row.name] = row.content;
        const Report report = report_of(files);
        const Verdict& verdict = verdict_of(report, row.name);
        EXPECT_EQ(verdict.state, row.state) << row.what;
        EXPECT_EQ(verdict.lost, row.lost) << row.what;
        EXPECT_EQ(verdict.why, row.why) << row.what;
    }
}

TEST(Verdicts, EachFileThatIsGoneIsMissed) {
    for (const auto& [name, content] : whole_crash()) {
        Files files = whole_crash();
        files.erase(name);
        const Report report = report_of(files);
        const auto lost = report.incidents.at(0).lost();
        const std::string form = parse_name(name).kind <= Kind::kRegion
                                         ? name
                                         : name.substr(0, name.find("_20")) + "_*.log";
        const bool named = std::any_of(lost.begin(), lost.end(), [&](const JudgedFile* file) {
            return file->verdict.state == State::kMissing &&
                   (file->file.path == form || file->file.name.kind == parse_name(name).kind);
        });
        EXPECT_TRUE(named) << name;
    }
}

TEST(Verdicts, ALinkIsNotFollowedAndAnUnknownNameIsNamed) {
    const TemporaryDirectory directory;
    for (const auto& [name, content] : whole_crash())
        directory.write(name, content);
    std::filesystem::remove(directory.path() / kInfo);
    std::filesystem::create_symlink("/etc/passwd", directory.path() / kInfo);
    directory.write("core", "x");
    Evidence evidence(directory.path().string());
    const Report report = examine(evidence);
    EXPECT_EQ(verdict_of(report, kInfo).state, State::kUnreadable);
    EXPECT_EQ(report.incidents.at(0).sentence, kSentence);
    ASSERT_EQ(report.others.size(), 1u);
    EXPECT_EQ(report.others[0].verdict.state, State::kUnknownName);
}

TEST(Sentences, AreTakenApart) {
    struct {
        const char *sentence, *origin, *reason;
    } const rows[] = {
            {": CP Crash by CP - CP WDOG Reset", "CP", "CP WDOG Reset"},
            {": CP Crash by LNKM - a - b", "LNKM", "a - b"},
            {": CP Crash by (17)", "(17)", ""},
            {"something else", "", ""},
    };
    for (const auto& row : rows) {
        std::string origin, reason;
        EXPECT_EQ(take_apart(row.sentence, origin, reason), *row.origin != '\0');
        EXPECT_EQ(origin, row.origin);
        EXPECT_EQ(reason, row.reason);
    }
}

}  // namespace
}  // namespace rvd::report

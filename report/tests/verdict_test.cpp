// Verdicts on a small crash, made up line by line, with one thing wrong at a time.
#include <gtest/gtest.h>

#include <map>

#include "report/incident/incident.h"
#include "report/print/json.h"
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
    for (std::string line; std::getline(lines, line);) {
        if (line.find("get_log_dump: size:") == 0)
            text += "<6>[   78.000000] lnkm: rvd: get_log_dump: name:vss (1)\n";
        text += "<6>[   78.000000] lnkm: rvd: " + line + "\n";
    }
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

Report report_of(const Files& files, Depth depth = Depth::kWhole) {
    const TemporaryDirectory directory;
    for (const auto& [name, content] : files)
        directory.write(name, content);
    Evidence evidence(directory.path().string());
    return examine(evidence, depth);
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
             false, "1 byte at its end left over from an older file"},
            {"no dump", kDump, "", State::kEmpty, true, "2.9 KiB missing, in step 1, frame 1 of 2"},
            {"region cut", kVss, std::string(40, 'v'), State::kShort, true, "60 bytes missing"},
            {"sentence with the end of an older one", kInfo, std::string(kSentence) + "xyz",
             State::kStaleTail, false, "3 bytes at its end left over from an older file"},
            {"sentence cut", kInfo, ": CP Crash by CP - UM", State::kShort, true,
             "9 bytes missing"},
            {"another sentence", kInfo, ": CP Crash by RIL - x", State::kUnverified, false,
             "the kernel log has another sentence"},
            {"crash log cut at a line", kLog, kCrashLines.substr(0, last_line), State::kShort, true,
             "1 of its 13 lines missing"},
            {"crash log with the end of an older one", kLog, kCrashLines + "aved = 7\n",
             State::kStaleTail, false, "9 bytes at its end left over from an older file"},
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

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
}

// A crash whose lines are others, in the crash text log as in the kernel's.
Files crash_of(const std::string& lines) {
    Files files = whole_crash();
    files[kLog] = lines;
    files[kAfter] = kernel_log(lines);
    return files;
}

TEST(Verdicts, LinesThatTellOfLess) {
    const std::string complete =
            kCrashLines.substr(kCrashLines.find("std_ul_recv_data: [step 1] s"));
    const std::string stopped =
            replaced(kCrashLines, complete,
                     "std_ul_recv_data: ERR! [step 1] std_ul_rx_frame fail (ret -5)\n"
                     "dump: ERR! std_dump_receive_cp_dump fail\n");
    const std::string no_region = replaced(
            kCrashLines,
            "/data/vendor/log/rvd/cpcrash_vss_dump_umts_20201001-1232.log Complete! (100 bytes)",
            "ERR! std_ul_rx_frame fail (ret -5)");
    const std::string empty_region =
            replaced(replaced(kCrashLines, "size:100", "size:0"), "(100 bytes)", "(0 bytes)");
    struct {
        const char* what;
        std::string lines;
        const char* name;
        size_t size;
        State state;
        bool lost;
        const char* why;
    } const rows[] = {
            {"dump that stopped", stopped, kDump, 2048, State::kShort, true,
             "952 bytes missing, stopped in step 1, frame 2 of 2"},
            {"dump that stopped at once", stopped, kDump, 0, State::kEmpty, true,
             "the dump stopped before its first frame"},
            {"dump that stopped, of the announced length", stopped, kDump, 3000, State::kShort,
             true, "stopped in step 1, frame 2 of 2"},
            {"region that stopped", no_region, kVss, 40, State::kShort, true,
             "60 bytes missing, \"get_log_dump: ERR! std_ul_rx_frame fail (ret -5)\""},
            {"region that stopped, of the announced length", no_region, kVss, 100, State::kShort,
             true, "no line says that it is complete"},
            {"region announced as empty", empty_region, kVss, 0, State::kEmpty, false,
             "the driver announced 0 bytes"},
            {"no sentence", kCrashLines, kInfo, 0, State::kEmpty, true,
             "the driver gave no reason"},
    };
    for (const auto& row : rows) {
        Files files = crash_of(row.lines);
        files[row.name] = std::string(row.size, 'x');
        const Report report = report_of(files);
        const Verdict& verdict = verdict_of(report, row.name);
        EXPECT_EQ(verdict.state, row.state) << row.what;
        EXPECT_EQ(verdict.lost, row.lost) << row.what;
        EXPECT_EQ(verdict.why, row.why) << row.what;
        EXPECT_EQ(report_of(files, Depth::kList).anything_lost(), report.anything_lost())
                << row.what;
    }
    EXPECT_EQ(report_of(crash_of(stopped)).incidents.at(0).stopped,
              "std_ul_recv_data: ERR! [step 1] std_ul_rx_frame fail (ret -5), then dump: ERR! "
              "std_dump_receive_cp_dump fail");
}

TEST(Json, HasWhatTheReportHas) {
    Files files = whole_crash();
    files[kVss] = "v";
    const std::string text = json(report_of(files), {}, {});
    for (const char* part :
         {"\"schema\": 1,", "\"anything_lost\": true,", "\"kind\": \"crash\",",
          "\"modem\": \"umts\",", "\"type\": \"tq720\",", "\"time\": \"2020-10-01 12:31:17\",",
          "\"time_to_the_minute\": false,", "\"kernel_time\": 77.0,", "\"since_modem_boot\": 57.0,",
          "\"failed_boot_step\": null,", "\"dump_tried_again\": false,", "\"who\": \"CP\",",
          "\"owner\": 0,", "\"reason\": \"UMTS: abort\",", "\"driver_version\": \"lnkm 4.19\",",
          "\"daemon_version\": \"RVD-V3-20200928R1\",", "\"dump_stopped\": null,",
          "\"region\": \"vss\",\n          \"size\": 1,\n          \"expected_size\": 100,\n"
          "          \"verdict\": \"short\",\n          \"why\": \"99 bytes missing\","})
        EXPECT_NE(text.find(part), std::string::npos) << part << text;
}

TEST(Verdicts, TheLastTryOfAMinuteCounts) {
    Files files = whole_crash();
    files["cpcrash_umts_dump_fail_202010011231_40.log"] = kernel_log(
            "std_dump_write_versions: LNKM version: x\ndump: ERR! ostra_dump_boot fail\n");
    const Report report = report_of(files);
    EXPECT_EQ(report.incidents.at(0).stopped, "");
    EXPECT_EQ(verdict_of(report, kLog).state, State::kComplete);
}

TEST(Verdicts, WithoutAKernelLogTheCrashLogSpeaksForItself) {
    Files files = whole_crash();
    files.erase(kAfter);
    files[kLog] += "std_dump_rec";
    const Report report = report_of(files);
    EXPECT_EQ(verdict_of(report, kLog).why, "it ends within a line");
    EXPECT_EQ(verdict_of(report, kVss).state, State::kComplete);
    EXPECT_EQ(verdict_of(report, kDump).state, State::kComplete);
    EXPECT_EQ(verdict_of(report, kInfo).why, "no kernel log has the sentence");
    EXPECT_EQ(report.incidents.at(0).daemon_version, "RVD-V3-20200928R1");

    // A region that fails is left, so it is not what stopped the dump.
    files[kLog] = kCrashLines.substr(0, kCrashLines.find("std_ul_recv_info")) +
                  "std_ul_rx_frame: ERR! DUMP std_udl_poll fail\ndump: ERR! ostra_dump_boot fail\n";
    EXPECT_EQ(report_of(files).incidents.at(0).stopped, "dump: ERR! ostra_dump_boot fail");
}

TEST(Verdicts, ACrashInTheBootIsNotAfterIt) {
    Files files = whole_crash();
    files[kBefore] = replaced(kernel_log(""), "status_loop: CP status CRASH\n",
                              "main: Call boot start\n"
                              "<6>[   76.000000] lnkm: rvd: boot: ERR! Handshake fail\n"
                              "<6>[   77.000000] lnkm: rvd: main: CP Crash when CP booting..\n");
    const Report report = report_of(files);
    EXPECT_EQ(report.incidents.at(0).boot_step, "ERR! Handshake fail");
    EXPECT_EQ(report.incidents.at(0).since_boot, kNoTime);
    EXPECT_EQ(report.incidents.at(0).kernel_time, 77'000'000);
}

TEST(Verdicts, OfSilentResetRecords) {
    const std::string record =
            "[2020-10-01 12:31:50]\n"
            "0000:00000000 00000000 00000000 00000000 ................\n"
            "0010:564a227b 7d225245 00000000 00000000 {\"JVER\"}........\n\n";
    struct {
        const char *what, *name;
        std::string content;
        State state;
        bool lost;
        size_t logged = 139;  // as long as the log was before the last record
    } const rows[] = {
            {"as long as its lines say", "sr_info_umts", record + record, State::kComplete, false},
            {"begun anew", "sr_info_umts", record, State::kComplete, false, 65537},
            {"a record is gone", "sr_info_umts", record, State::kShort, true},
            {"cut in a record", "sr_info_umts", record + record.substr(0, 60), State::kShort, true},
            {"a record has come since", "sr_info_umts", record + record + record,
             State::kUnverified, false},
            {"no record yet", "sr_info_umts", "", State::kUnverified, false},
            {"put aside too early", ".sr_info_umts.bak", record, State::kShort, true},
            {"waiting", "err/last_sr_info_umts", "{\"JVER\"}", State::kComplete, false},
            {"waiting, cut", "err/last_sr_info_umts", "{\"JVER\"", State::kShort, true},
            {"waiting, with more behind it", "err/last_sr_info_umts", "{}x", State::kStaleTail,
             false},
            {"waiting, empty", "err/last_sr_info_umts", "", State::kEmpty, true},
    };
    for (const auto& row : rows) {
        Files files = whole_crash();
        files[row.name] = row.content;
        files["android.log"] =
                "D/boot: rvd: open_srinfo_file: srinfo log size : " + std::to_string(row.logged) +
                "\nD/boot: rvd: write_srinfo_file: store to hex ascii text size=(24)\n";
        const Report report = report_of(files);
        for (const JudgedFile& file : report.others) {
            if (file.file.path != row.name) continue;
            EXPECT_EQ(file.verdict.state, row.state) << row.what << ": " << file.verdict.why;
            EXPECT_EQ(file.verdict.lost, row.lost) << row.what;
        }
        EXPECT_EQ(report.others.size(), 2u);
        // A record is its crash's where it came during it, and the modem's.
        const bool records = *row.name == 's' && !row.content.empty();
        EXPECT_EQ(report.incidents.at(0).records.empty(), !records && *row.name != '.') << row.what;
    }
}

TEST(Verdicts, ARecordBelongsToTheCrashOfItsModemAndTime) {
    for (const char* time : {"12:30:00", "12:31:50", "12:34:02", "12:34:03"}) {
        for (const char* name : {"sr_info_umts", "sr_info_nr"}) {
            Files files = whole_crash();
            files[name] = std::string("[2020-10-01 ") + time +
                          "]\n0000:00000000 00000000 00000000 00000000 ................\n\n";
            const bool during = time == std::string("12:31:50") || time == std::string("12:34:02");
            EXPECT_EQ(report_of(files).incidents.at(0).records.size(),
                      during && name == std::string("sr_info_umts") ? 1u : 0u)
                    << time << ' ' << name;
        }
    }
}

uint64_t bytes_read() {
    const std::string io = read_whole("/proc/self/io");
    return std::stoull(io.substr(io.find("rchar: ") + 7));
}

TEST(Verdicts, ADumpIsJudgedWithoutBeingRead) {
    constexpr char kMost[] = "saved = 4294967295";
    const TemporaryDirectory directory;
    for (const auto& [name, content] : crash_of(replaced(kCrashLines, "saved = 3000", kMost)))
        directory.write(name, content);
    std::filesystem::resize_file(directory.path() / kDump, UINT32_MAX);
    const uint64_t before = bytes_read();
    Evidence evidence(directory.path().string());
    const Report report = examine(evidence);
    EXPECT_LT(bytes_read() - before, 1u << 20);
    EXPECT_EQ(verdict_of(report, kDump).state, State::kComplete);
    EXPECT_EQ(verdict_of(report, kDump).expected, UINT32_MAX);
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
    EXPECT_EQ(verdict_of(report, kInfo).why, "a link, which is not followed");
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

// Which files belong to one incident, by their names alone.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "report/incident/incident.h"

namespace rvd::report {
namespace {

// "crash umts 12:31:17, 6 files"
std::vector<std::string> grouped(const std::vector<std::string>& names) {
    std::vector<File> files(names.size());
    for (size_t i = 0; i < names.size(); i++) {
        files[i].path = names[i];
        files[i].name = parse_name(names[i]);
        EXPECT_NE(files[i].name.kind, Kind::kUnknown) << names[i];
    }
    std::vector<std::string> found;
    for (const Incident& incident : group(std::move(files), "").incidents) {
        const std::string time = format_time(incident.time, incident.to_the_minute).substr(11);
        found.push_back(fmt::format("{} {} {}, {} files{}", incident.crash ? "crash" : "reset",
                                    incident.modem, time, incident.files.size(),
                                    incident.again ? ", again" : ""));
    }
    return found;
}

const std::string kLog = "cpcrash_umts_log_20201001-1231.log",
                  kBefore = "cpcrash_umts_klog_before_202010011231_17.log",
                  kAfter = "cpcrash_umts_klog_after_202010011233_02.log",
                  kFail = "cpcrash_umts_dump_fail_202010011231_50.log";

TEST(Grouping, ByModemAndTime) {
    struct {
        const char* what;
        std::vector<std::string> names, incidents;
    } const rows[] = {
            {"one crash, its files named while it is dumped",
             {kLog, "cpcrash_umts_info_tq720_20201001-1231.log",
              "cpcrash_umts_dump_20201001-1231.log", "cpcrash_l2b_dump_umts_20201001-1231.log",
              "cpcrash_vss_dump_umts_20201001-1232.log", kBefore, kAfter},
             {"crash umts 12:31:17, 7 files"}},
            {"two crashes, each with the region named behind it",
             {kLog, kBefore, "cpcrash_vss_dump_umts_20201001-1232.log", kAfter,
              "cpcrash_umts_log_20201001-1234.log", "cpcrash_umts_klog_before_202010011234_05.log",
              "cpcrash_vss_dump_umts_20201001-1235.log"},
             {"crash umts 12:31:17, 4 files", "crash umts 12:34:05, 3 files"}},
            {"the log directory was tried for a minute and a half",
             {"cpcrash_umts_klog_before_202010011229_30.log", kLog},
             {"crash umts 12:29:30, 2 files"}},
            {"a crash that was not dumped, and another later",
             {"cpcrash_umts_klog_before_202010011228_30.log", kLog},
             {"crash umts 12:28:30, 1 files", "crash umts 12:31, 1 files"}},
            {"a dump that failed, tried again at once",
             {kLog, kBefore, kFail, "cpcrash_umts_klog_before_202010011232_00.log",
              "cpcrash_umts_log_20201001-1232.log"},
             {"crash umts 12:31:17, 3 files", "crash umts 12:32:00, 2 files, again"}},
            {"the next crash is no new try",
             {kLog, kBefore, kFail, "cpcrash_umts_klog_before_202010011232_01.log",
              "cpcrash_umts_log_20201001-1232.log"},
             {"crash umts 12:31:17, 3 files", "crash umts 12:32:01, 2 files"}},
            {"a new try that got no further than its kernel log",
             {kLog, kBefore, kFail, "cpcrash_umts_klog_before_202010011231_55.log"},
             {"crash umts 12:31:17, 4 files"}},
            {"a reset and the boot that follows it",
             {"rvd_only_umts_202010011230_34.log", "cp_boot_umts_202010011231_02.log",
              "cp_boot_done_umts_202010011233_30.log"},
             {"reset umts 12:30:34, 3 files"}},
            {"a boot two minutes later",
             {"rvd_only_umts_202010011230_34.log", "cp_boot_umts_202010011232_34.log"},
             {"reset umts 12:30:34, 2 files"}},
            {"a boot too late to follow it",
             {"rvd_only_umts_202010011230_34.log", "cp_boot_umts_202010011232_35.log"},
             {"reset umts 12:30:34, 1 files", "reset umts 12:32:35, 1 files"}},
            {"two resets, one soon after the other",
             {"rvd_only_umts_202010011230_34.log", "rvd_only_umts_202010011230_50.log"},
             {"reset umts 12:30:34, 1 files", "reset umts 12:30:50, 1 files"}},
            {"the boot after a crash",
             {kLog, kBefore, kAfter, "cp_boot_umts_202010011234_00.log"},
             {"crash umts 12:31:17, 4 files"}},
            {"a boot in the middle of a dump is of another reset",
             {kLog, kBefore, "cp_boot_umts_202010011232_00.log", kAfter},
             {"crash umts 12:31:17, 3 files", "reset umts 12:32:00, 1 files"}},
            {"both modems at once; one kernel log does not say whose it is",
             {kLog, "cpcrash_nr_log_20201001-1231.log", "dmesg_202010011231_40.log"},
             {"crash nr 12:31, 2 files", "crash umts 12:31, 1 files"}},
            {"a region alone",
             {"cpcrash_vss_dump_nr_20201001-1232.log"},
             {"crash nr 12:32, 1 files"}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(grouped(row.names), row.incidents) << row.what;
}

}  // namespace
}  // namespace rvd::report

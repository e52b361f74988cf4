// What lines make of a scenario, a few at a time; that whole runs are played again is tested with
// the virtual phone.
#include "report/scenario/scenario.h"

#include <gtest/gtest.h>

#include "report/parse/words.h"

namespace rvd::report {
namespace {

// A line for every second.
std::string scenario_of(const std::vector<const char*>& lines) {
    std::vector<Event> events;
    for (const char* text : lines) {
        const auto line = parse_line(Sink::kCrashLog, text);
        EXPECT_TRUE(line) << text;
        Event event;
        event.at = static_cast<KernelTime>(events.size()) * 1'000'000;
        event.step = line->tag;
        event.message = line->message;
        event.text = text;
        event.failure = line->fails();
        events.push_back(event);
    }
    Report report;
    report.path = "pulled/bug 7/";
    return scenario(report, events);
}

TEST(Scenario, SaysWhatLinesTell) {
    struct {
        const char* what;
        std::vector<const char*> lines;
        const char* part;
    } const rows[] = {
            {"the name is the directory's", {"main: x"}, "name = \"bug 7\"\n"},
            {"options in their order",
             {"parseArgs: Daemon Mode", "parseArgs: VK880 modem",
              "parseArgs: set nv partition : /nv", "main: Start Radio"},
             "args = [\"-d\", \"-t\", \"vk880\", \"-n\", \"/nv\"]\nmodem = \"vk880\"\n"},
            {"a partition's number",
             {"parseArgs: set partition number : 5",
              "parseArgs: partition path : /dev/block/mmcblk0p5", "main: x"},
             "args = [\"-p\", \"5\"]\n"},
            {"only the first start's options",
             {"main: Start Radio", "parseArgs: TQ720 modem", "main: Start Radio",
              "parseArgs: run with root", "main: x"},
             "args = [\"-t\", \"tq720\"]\n"},
            {"the kernel's words, each once",
             {"get_cmdline_str: find str a=1 form /proc/cmdline",
              "get_cmdline_str: find str b=2 form /proc/cmdline",
              "get_cmdline_str: find str a=1 form /proc/cmdline"},
             "cmdline = \"a=1 b=2\"\n"},
            {"a wait that timed out",
             {"boot: NV validation TIMEOUT"},
             "[case.properties]\n\"vendor.rvd.rfs_check_done\" = \"0\"\n"},
            {"images are loaded again only after a first boot",
             {"load_cp_images: stage[1]", "boot: Request Security"},
             "\"vendor.rvd.first_xmit_done\" = \"1\"\n"},
            {"less room than the virtual phone has",
             {"check_log_directory: /data/vendor/log/rvd: freespace 20 / 500 MB"},
             "free = { \"/data/vendor/log/rvd\" = 20 }\n"},
            {"the table of contents",
             {"prepare_boot_args: toc[1].name = BOOT, b_off=0x00000200, m_off=0x00002000, "
              "size=0x00000064, crc=0x00000007"},
             "table = \"BOOT:100@512>0x2000#0x7\"\n"},
            {"a table that says nonsense, cut where the last sense ends",
             {"prepare_boot_args: toc[1].name = BOOT, b_off=0x00000200, m_off=0x00002000, "
              "size=0x00000064",
              "prepare_boot_args: toc[2].name = MAIN, b_off=0xF0000000, m_off=0x0, "
              "size=0xF0000000"},
             "truncate = 612\n"},
            {"a modem that waits, then crashes",
             {"status_loop: Wait event", "status_loop: deviceOff = 0", "status_loop: get event 2"},
             "timeline = [{ waits = true, after = \"2000 ms\", state = 2 }"},
            {"a shutdown while it waits",
             {"status_loop: Wait event", "status_loop: deviceOff = 1", "status_loop: shutdown"},
             "state = 0, set = { \"sys.shutdown.requested\" = \"1\" } }]"},
            {"another word than the one that is due",
             {"std_udl_req_resp: request:0x0000900D",
              "std_udl_req_resp: ERR! resp 0xA00C != exp 0xA00D"},
             "loader = [{ at = \"0xA00D\", say = 40972, after = \"std_udl_req_resp: "
             "request:0x0000900D*\" }]"},
            {"silence, and the word that was due",
             {"std_udl_req_resp: request:0x0000900D",
              "std_udl_poll: ERR! poll fail (events 0x1, TIMEOUT)",
              "std_udl_req_resp: ERR! expected:0x0000A00D"},
             "loader = [{ at = \"0xA00D\", silent = true, after"},
            {"a request that the driver refused, the second time it said so",
             {"boot: x", "main: y", "boot: x",
              "(ERR! No such device) a: ERR! IOCTL_POWER_ON fail (-1)"},
             "answer = [{ request = \"POWER_ON\", result = -19, after = \"boot: x*\", said = 2 }]"},
            {"a call that failed",
             {"main: x", "(ERR! No space left on device) write_srinfo_file: write fail"},
             "fault = [{ call = \"write\", path = \"*/sr_info_*\", error = \"ENOSPC\", after = "
             "\"main: x*\" }]"},
            {"a call on a file with a time in its name",
             {"(ERR! Permission denied) get_log_dump: /l/cpcrash_vss_dump_umts_20201001-1231.log "
              "open fail"},
             "path = \"/l/cpcrash_vss_dump_umts_2*\", error = \"EACCES\""},
            {"what the dump announced, steps that came and those that did not",
             {"std_ul_recv_info: dump_size = 15000", "std_ul_recv_info: num_steps = 3",
              "std_ul_recv_info: reason_len = 4", "std_ul_recv_data: [step 1] num_frames = 5",
              "std_ul_recv_data: [step 1] saved = 10000"},
             "[case.dump]\nsteps = [10000, 0, 5000]\nreason = \"    \"\n"},
            {"a foreign version cannot leave its quotes",
             {"std_dump_write_versions: LNKM version: a\"\\\x1b\xff"},
             "version = \"a\\\"\\\\\\u001B\\u00FF\"\n"},
            {"failures are expected, descriptors and times aside",
             {"(ERR! x) dump: ERR! /a_20201001-1231.log (fd 5)", "main: y"},
             "log = [\"(ERR! x) dump: ERR! /a*\"]"},
    };
    for (const auto& row : rows) {
        const std::string made = scenario_of(row.lines);
        EXPECT_NE(made.find(row.part), std::string::npos) << row.what << ":\n" << made;
    }
    EXPECT_THROW(scenario_of({}), Unreadable);
}

TEST(Scenario, EndsAsTheEvidenceDoes) {
    struct {
        const char *last, *end;
    } const rows[] = {
            {"status_loop: Wait event", "waits"},
            {"std_dump_trigger_kernel_panic: Go to UPLOAD mode", "upload"},
            {"main: Cp boot Oneshot", "exit 0"},
            {"parseArgs: Unknown modem", "exit 234"},
            {"status_loop: shutdown", "parked"},
            {"boot: Handshake", "stop"},
    };
    for (const auto& row : rows)
        EXPECT_NE(scenario_of({row.last}).find(std::string("end = \"") + row.end + "\"\n"),
                  std::string::npos)
                << row.last;
}

}  // namespace
}  // namespace rvd::report

// The upload of a crash dump: announcement, reason, steps, and the crash files.
#include <climits>

#include "tests/support/phone.h"

namespace rvd::test {
namespace {

// The dump record is prepared, and the driver names the owner of the crash.
class Upload : public Phone {
  protected:
    void SetUp() override {
        Phone::SetUp();
        begin();
    }

    // Opens empty crash files and sets the reason's prefix.
    void begin() {
        const std::pair<dump_fd_slot, const char*> files[] = {
                {DUMP_FD_LOG, "log"}, {DUMP_FD_INFO, "info"}, {DUMP_FD_DUMP, "dump"}};
        for (const auto& [slot, name] : files) {
            write_file(path(name), "");
            if (dump().fd[slot] >= 0) close(dump().fd[slot]);
            dump().fd[slot] = open(path(name).c_str(), O_WRONLY | O_CLOEXEC);
        }
        memcpy(dump().reason, std::string("UMTS: ").append(kCrashReasonSize, '\0').data(),
               kCrashReasonSize);
    }

    void expect_crash_reason(int32_t owner = 0, const std::string& text = "") {
        driver().expect<cp_crash_reason>(IOCTL_GET_CP_CRASH_REASON, [=](cp_crash_reason& record) {
            record.owner = owner;
            text.copy(record.text, sizeof(record.text));
            return 0;
        });
    }

    int upload(const std::string& script) {
        if (script.find("<T") != std::string::npos) expect_crash_reason();
        return with_modem(dump().fd[DUMP_FD_NODE], ">9D00 " + script,
                          [&] { return protocol_.std_dump_receive_cp_dump(); });
    }

    std::string saved(const char* name) { return read_file(path(name)); }

    ProtocolVelo protocol_;
};

TEST_F(Upload, SavesADumpOfSeveralSteps) {
    EXPECT_EQ(upload("<AD00 <I:6144:2:8 <T:watchdog >9D01 <AD01:2:1:2048 <AD01:2:2:1 "
                     ">9D02 <AD02:2:1:2047 <AD02:2:2:2048 >9D0D <AD0D"),
              0);
    EXPECT_TRUE(saved("dump") == pattern(6144));
    EXPECT_EQ(saved("info"), ": CP Crash by CP - UMTS: watchdog");
    EXPECT_EQ(saved("log"),
              "std_ul_recv_info: DUMP INFO saved\n"
              "std_ul_recv_data: [step 1] num_frames = 2\n"
              "std_ul_recv_data: [step 1] command = 0xAD01\n"
              "std_ul_recv_data: [step 1] saved = 2049\n"
              "std_ul_recv_data: [step 2] num_frames = 2\n"
              "std_ul_recv_data: [step 2] command = 0xAD02\n"
              "std_ul_recv_data: [step 2] saved = 4095\n"
              "std_dump_receive_cp_dump: DUMP DATA saved\n");
}

TEST_F(Upload, ReportsWhichPartOfTheExchangeFailed) {
    const struct {
        const char* modem;  // after the START of the upload
        int result;
        const char* line;  // also the last of the crash text log
    } cases[] = {
            {"<AD0D", -14, "ERR! std_udl_stage_start fail"},
            {"<AD00", -5, "ERR! std_ul_recv_info fail"},
            {"<AD00 <I:0:0:1", -5, "ERR! std_ul_recv_info fail"},
            {"<AD00 <I:2:2:1 <T:x >9D01 <AD01:1:1:1 >9D02 <AD01:1:1:1", -14,
             "ERR! std_ul_recv_data fail"},
            {"<AD00 <I:1:0:1 <T:x", -14, "ERR! saved 0 != dump_size 1"},
            {"<AD00 <I:3:1:1 <T:x >9D01 <AD01:1:1:2", -14, "ERR! saved 2 != dump_size 3"},
            {"<AD00 <I:0:0:1 <T:x >9D0D <AD00", -14, "ERR! DUMP std_udl_stage_done fail"},
            {"<AD00 <I:0:0:1 <T:x >9D0D <AD0D", 0, "DUMP DATA saved"},  // no steps
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.modem);
        begin();
        EXPECT_EQ(upload(c.modem), c.result);
        EXPECT_THAT(said(), Contains(std::string("std_dump_receive_cp_dump: ") + c.line));
        EXPECT_THAT(saved("log"), EndsWith(std::string(c.line) + "\n"));
    }
}

TEST_F(Upload, ReadsTheReasonWithOneReadAndCutsIt) {
    const struct {
        const char* modem;
        int result;
        size_t kept;  // characters after the prefix
    } cases[] = {
            {"<I:0:0:0 <T:next", 0, 0},  // waits for a packet and does not read it
            {"<I:0:0:1 <R:1", 0, 1},       {"<I:0:0:400 <R:7", 0, 7},
            {"<I:0:0:503 <R:503", 0, 503}, {"<I:0:0:504 <R:504", 0, 504},
            {"<I:0:0:505 <R:505", 0, 505}, {"<I:0:0:506 <R:506", 0, 505},
            {"<I:0:0:507 <R:507", 0, 505}, {"<I:0:0:2064 <R:2064", 0, 505},
            {"<I:0:0:2065", -14, 0},       {"<I:0:0:4294967295", -14, 0},
            {"<I:0:0:1", -5, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.modem);
        begin();
        if (c.result == 0) expect_crash_reason();
        EXPECT_EQ(with_modem(dump().fd[DUMP_FD_NODE], c.modem,
                             [&] { return protocol_.std_ul_recv_info(); }),
                  c.result);
        const std::string reason = "UMTS: " + std::string(c.kept, 'r');
        EXPECT_EQ(dump().reason, reason);
        const std::string sentence = (": CP Crash by CP - " + reason).substr(0, 511);
        EXPECT_EQ(saved("info"), c.result == 0 ? sentence : "");
        const char* lines[] = {"DUMP INFO saved", "ERR! REASON std_ul_rx_frame fail",
                               "ERR! REASON is longer than a frame"};
        EXPECT_EQ(last_said(), std::string("std_ul_recv_info: ") + lines[c.result == 0    ? 0
                                                                         : c.result == -5 ? 1
                                                                                          : 2]);
    }
}

TEST_F(Upload, EndsAStepAtItsFirstInvalidFrame) {
    const struct {
        const char* modem;  // after the request of step 3
        int result;
        size_t saved;
        const char* line;  // also the last of the crash text log
    } cases[] = {
            {"<AD01:1:1:1", -14, 0, "ERR! [step 3] cmd 0xAD01 != exp 0xAD03"},
            {"<AD03:2:2:1", -14, 0, "ERR! [step 3] curr_frame 2 != seqn 1"},
            {"<AD03:2:1:9 <AD03:2:1:9", -14, 9, "ERR! [step 3] curr_frame 1 != seqn 2"},
            {"<AD03:2:1:9 <AD03:2:3:9", -14, 9, "ERR! [step 3] curr_frame 3 != seqn 2"},
            {"<AD03:2:1:9 <AD03:2:2:2049", -14, 9,
             "ERR! [step 3] seq# 2 len 2049 in a frame of 2064 bytes"},
            {"<AD03:2:1:9 <AD03:2:2:9/8", -14, 9,
             "ERR! [step 3] seq# 2 len 9 in a frame of 24 bytes"},
            {"<AD03:2:1:9 <AD03:2:2:4294967280/8", -14, 9,
             "ERR! [step 3] seq# 2 len 4294967280 in a frame of 24 bytes"},
            {"<AD03:2:1:9 <C:15", -14, 9, "ERR! [step 3] frame of 15 bytes has no header"},
            {"<AD03:2:1:9 <0", -14, 9, "ERR! [step 3] frame of 0 bytes has no header"},
            {"<AD03:2:1:9", -5, 9, "ERR! [step 3] std_ul_rx_frame fail (ret -5)"},
            {"<AD03:0:1:0", 0, 0, "[step 3] saved = 0"},
            {"<AD03:1:1:2048", 2048, 2048, "[step 3] saved = 2048"},
            {"<AD03:1:1:8/9", 8, 8, "[step 3] saved = 8"},  // ignores bytes beyond `len`
    };
    const auto step = [&](unsigned number, const std::string& script) {
        begin();
        return with_modem(dump().fd[DUMP_FD_NODE], script,
                          [&] { return protocol_.std_ul_recv_data(number); });
    };
    {
        const FullDisk disk(3000);
        EXPECT_EQ(step(1, ">9D01 <AD01:2:1:2048 <AD01:2:2:2048"), -1);
        EXPECT_EQ(last_said(), "! std_ul_recv_data: ERR! [step 1] seq# 2 write fail");
        EXPECT_TRUE(saved("dump") == pattern(3000));
    }
    for (const auto& c : cases) {
        SCOPED_TRACE(c.modem);
        EXPECT_EQ(step(3, std::string(">9D03 ") + c.modem), c.result);
        EXPECT_TRUE(saved("dump") == pattern(c.saved));
        const std::string line = std::string("std_ul_recv_data: ") + c.line;
        EXPECT_EQ(last_said(), line);
        EXPECT_THAT(saved("log"), EndsWith(line + "\n"));
    }
    EXPECT_EQ(step(256, ""), -14);
    EXPECT_EQ(last_said(), "std_ul_recv_data: ERR! [step 256] is beyond the last step 255");
    EXPECT_EQ(step(255, "<0"), -1);
    EXPECT_EQ(last_said(), "std_ul_recv_data: ERR! [step 255] start fail (ret -1)");
}

TEST_F(Upload, NamesTheOwnerInTheCrashSentence) {
    const struct {
        std::vector<int32_t> owners;
        std::string who;
    } cases[] = {
            {{0, 13, 14, 15}, "CP - UMTS: link"},
            {{1, 2, 3, 4, 9}, "RIL - driver"},
            {{6, 7, 8, 10, 12}, "LNKM - driver"},
            {{5}, "USER - driver"},
            {{16}, "CLD - driver"},
            {{11}, "CP - CP WDOG Reset"},
            {{17}, "(17)"},
            {{-1}, "(-1)"},
            {{INT_MIN}, "(-2147483648)"},
    };
    const Modem modem(&dump().fd[DUMP_FD_NODE], "");
    char* sentence = Container::getRvdArgs()->crash_reason;
    char reason[] = "UMTS: link";
    for (const auto& c : cases) {
        for (const int32_t owner : c.owners) {
            memset(sentence, 'x', kCrashReasonSize);
            expect_crash_reason(owner, "driver");
            protocol_.make_cp_crash_reason(reason);
            EXPECT_EQ(sentence, ": CP Crash by " + c.who);
            EXPECT_THAT(said(),
                        ElementsAre("make_cp_crash_reason: reason owner:" + std::to_string(owner),
                                    "make_cp_crash_reason: CP CRASH: CP Crash by " + c.who));
        }
    }
    expect_crash_reason(1, std::string(512, 't'));  // not terminated
    protocol_.make_cp_crash_reason(reason);
    EXPECT_EQ(sentence, (": CP Crash by RIL - " + std::string(512, 't')).substr(0, 511));
    said();
    driver().expect(IOCTL_GET_CP_CRASH_REASON, -1);
    protocol_.make_cp_crash_reason(reason);
    EXPECT_STREQ(sentence, "");
    EXPECT_THAT(said(), ElementsAre("! make_cp_crash_reason: ERR! IOCTL_GET_CP_CRASH_REASON fail"));
}

}  // namespace
}  // namespace rvd::test

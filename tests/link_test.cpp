// Words and frames between the daemon and the modem's boot loader.
#include "protocol/link.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <functional>
#include <regex>

#include "bootdump/BootDump.h"
#include "protocol/ProtocolVelo.h"
#include "tests/support/phone.h"

namespace rvd::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Link : public Phone {
  protected:
    int image(const std::string& content) {
        write_file(path("image"), content);
        boot().fd[BOOT_FD_PARTITION] = open(path("image").c_str(), O_RDONLY | O_CLOEXEC);
        return boot().fd[BOOT_FD_PARTITION];
    }

    ProtocolVelo protocol_;
};

TEST_F(Link, AWordIsSentAndItsAnswerChecked) {
    const auto quiet = [](Modem&) {};
    const struct {
        const char* name;
        uint32_t req, exp;
        std::function<void(Modem&)> modem;
        int result;
        Lines lines;
    } cases[] = {
            {"nothing to say or hear", 0, 0, quiet, 0, {}},
            {"only sent",
             0x9D01,
             0,
             [](Modem& m) { m.expects(word(0x9D01)); },
             0,
             {"request:0x00009D01"}},
            {"only awaited", 0, 0xA001, [](Modem& m) { m.says(word(0xA001)); }, 0, {}},
            {"answered",
             0x9200,
             0xA200,
             [](Modem& m) { m.expects(word(0x9200)).says(word(0xA200)); },
             0,
             {"request:0x00009200"}},
            {"answered with more",
             0,
             0xA200,
             [](Modem& m) { m.says(word(0xA200) + "more"); },
             0,
             {}},
            {"another stage",
             0x9200,
             0xA200,
             [](Modem& m) { m.expects(word(0x9200)).says(word(0xA300)); },
             -14,
             {"request:0x00009200", "ERR! resp 0xA300 != exp 0xA200",
              "ERR! request:0x00009200 expected:0x0000A200"}},
            {"half a word",
             0,
             0xA200,
             [](Modem& m) { m.says(word(0xA200).substr(0, 1)); },
             -14,
             {"ERR! resp 0x0 != exp 0xA200", "ERR! request:0x00000000 expected:0x0000A200"}},
            {"silence",
             0x9200,
             0xA200,
             [](Modem& m) { m.expects(word(0x9200)); },
             -5,
             {"request:0x00009200", "ERR! poll fail (events 0x1, TIMEOUT)",
              "ERR! std_udl_poll fail", "ERR! request:0x00009200 expected:0x0000A200"}},
            {"hung up before",
             0x9200,
             0xA200,
             [](Modem& m) { m.hangs_up().take_turn(); },
             -1,
             {"request:0x00009200", "! ERR! write fail",
              "ERR! request:0x00009200 expected:0x0000A200"}},
            {"hung up instead",
             0x9200,
             0xA200,
             [](Modem& m) { m.expects(word(0x9200)).hangs_up(); },
             -14,
             {"request:0x00009200", "ERR! resp 0x0 != exp 0xA200",
              "ERR! request:0x00009200 expected:0x0000A200"}},
    };
    for (const operation op : {DOWNLOAD, UPLOAD}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(c.name) + " on node " + std::to_string(op));
            int32_t& node = op == DOWNLOAD ? boot().fd[BOOT_FD_NODE] : dump().fd[DUMP_FD_NODE];
            {
                Modem modem(&node);
                c.modem(modem);
                kernel().timeouts.clear();
                EXPECT_EQ(protocol_.std_udl_req_resp(op, c.req, c.exp), c.result);
            }
            close(node);
            node = -1;
            Lines lines = said();
            for (std::string& line : lines) {
                line = std::regex_replace(line, std::regex("std_udl_(req_resp|poll): "), "");
            }
            EXPECT_EQ(lines, c.lines);
            EXPECT_EQ(kernel().timeouts, std::vector<int>(c.result == -5 ? 1 : 0, 30000));
        }
    }
}

TEST_F(Link, AHangUpWithoutDataIsNoInput) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    boot().fd[BOOT_FD_NODE] = ends[0];
    close(ends[1]);
    EXPECT_EQ(protocol_.std_udl_poll(DOWNLOAD, POLLIN, 30000), -5);
    EXPECT_THAT(said(), ElementsAre("std_udl_poll: ERR! poll fail (events 0x1 != revents 0x10)"));
}

TEST_F(Link, AnImageGoesOutInFullFramesAndOneRest) {
    for (const uint32_t size : {0u, 1u, 2047u, 2048u, 2049u, 4096u, 5000u}) {
        SCOPED_TRACE(size);
        const std::string bytes = pattern(100 + size + 1);
        const int fd = image(bytes);
        const uint32_t frames = (size + 2047) / 2048;
        {
            Modem modem(&boot().fd[BOOT_FD_NODE]);
            for (uint32_t i = 0; i < frames; ++i) {
                const uint32_t len = std::min(size - i * 2048, 2048u);
                modem.expects(frame(0x9201, frames, i + 1, bytes.substr(100 + i * 2048, len)));
            }
            modem.says(word(0xA201));
            EXPECT_EQ(protocol_.std_dl_send_bin(2, fd, 100, size), 0);
        }
        const std::string text = std::to_string(size);
        EXPECT_THAT(said(),
                    ElementsAre("std_dl_send_bin: stage = 2",
                                testing::StartsWith("std_dl_send_bin: size = " + text + " (0x"),
                                "std_dl_send_bin: mtu = 2064", "std_dl_send_bin: mss = 2048",
                                "std_dl_send_bin: frames = " + std::to_string(frames)));
        EXPECT_THAT(kernel().timeouts, IsEmpty());
        Container::getBootDump()->std_boot_close_args();
    }
}

TEST_F(Link, AnImageThatCannotGoOutFailsItsStage) {
    const struct {
        const char* name;
        size_t held;  // of the 2049 bytes of the image
        std::function<void(Modem&)> modem;
        int result;
        const char* line;  // the last but one
    } cases[] = {
            {"ends after a frame", 2048,
             [](Modem& m) { m.expects(frame(0x9201, 2, 1, pattern(2048))); }, -14,
             "std_dl_tx_frame: ERR! rcvd 0 != frm->len 1"},
            {"ends within a frame", 2047, [](Modem&) {}, -14,
             "std_dl_tx_frame: ERR! rcvd 2047 != frm->len 2048"},
            {"no modem", 2049, [](Modem& m) { m.hangs_up().take_turn(); }, -1,
             "! std_dl_tx_frame: ERR! write fail"},
            {"wrong answer", 2049,
             [](Modem& m) {
                 m.expects(frame(0x9201, 2, 1, pattern(2049).substr(0, 2048)));
                 m.expects(frame(0x9201, 2, 2, pattern(2049).substr(2048))).says(word(0xA20D));
             },
             -14, "std_udl_req_resp: ERR! request:0x00000000 expected:0x0000A201"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int fd = image(pattern(c.held));
        {
            Modem modem(&boot().fd[BOOT_FD_NODE]);
            c.modem(modem);
            EXPECT_EQ(protocol_.std_dl_send_bin(2, fd, 0, 2049), c.result);
        }
        const Lines lines = said();
        EXPECT_EQ(lines.at(lines.size() - 2), c.line);
        Container::getBootDump()->std_boot_close_args();
    }
    Modem modem(&boot().fd[BOOT_FD_NODE]);
    EXPECT_EQ(protocol_.std_dl_send_bin(2, -1, 0, 2049), -1);
    EXPECT_THAT(said(), ElementsAre("! std_dl_send_bin: ERR! lseek fail"));
}

TEST_F(Link, ExchangesOfAStageNameItAndReportTheirFailure) {
    const std::string crc = word(0x920C) + word(0xC0FFEE);
    const struct {
        const char* name;
        std::function<int(ProtocolVelo&)> exchange;
        std::string sent;
        uint32_t answer;
        const char* line;  // the last one, when the modem answers something else
    } cases[] = {
            {"start", [](auto& p) { return p.std_udl_stage_start(DOWNLOAD, 2); }, word(0x9200),
             0xA200, "std_udl_stage_start: ERR! [stage 2] START fail (req:0x9200 exp:0xA200)"},
            {"done", [](auto& p) { return p.std_udl_stage_done(DOWNLOAD, 12, 99); }, word(0x9C0D),
             0xAC0D, "std_udl_stage_done: ERR! [stage 12] DONE fail (req:0x9C0D exp:0xAC0D)"},
            {"crc", [](auto& p) { return p.std_dl_send_crc(2, 0xC0FFEE); }, crc, 0xA20C,
             "std_dl_send_crc: ERR! std_udl_req_resp fail"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        for (const uint32_t answer : {c.answer, c.answer | 0x100}) {
            {
                Modem modem(&boot().fd[BOOT_FD_NODE]);
                modem.expects(c.sent).says(word(answer));
                EXPECT_EQ(c.exchange(protocol_), answer == c.answer ? 0 : -14);
            }
            Container::getBootDump()->std_boot_close_args();
        }
        EXPECT_EQ(said().back(), c.line);
    }
}

TEST_F(Link, TheHandshakeEndsStageZeroAndStartsStageFifteen) {
    Container::getRvdArgs()->boot_stage = 3;  // plays no part
    {
        Modem modem(&boot().fd[BOOT_FD_NODE]);
        modem.expects(word(0x900D)).says(word(0xA00D)).expects(word(0x9F00)).says(word(0xAF00));
        EXPECT_EQ(protocol_.std_boot_finish_handshake(), 0);
        modem.expects(word(0x900D)).says(word(0xA00D)).expects(word(0x9F00)).says(word(0xAF01));
        EXPECT_EQ(protocol_.std_boot_finish_handshake(), -14);
        EXPECT_EQ(said().back(), "std_boot_finish_handshake: ERR! std_udl_stage_done fail");
        modem.expects(word(0x900D));
        EXPECT_EQ(protocol_.std_boot_finish_handshake(), -5);
    }
    EXPECT_EQ(said().back(), "std_boot_finish_handshake: ERR! std_udl_stage_done fail");
}

}  // namespace
}  // namespace rvd::test

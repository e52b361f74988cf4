// Words and frames between the daemon and the modem's boot loader.
#include "protocol/link.h"

#include <poll.h>

#include "tests/support/phone.h"

namespace rvd::test {
namespace {

class Link : public Phone {
  protected:
    void SetUp() override {
        Phone::SetUp();
        write_file(path("image"), std::string(100, '-') + pattern(8192));
        image_ = boot().fd[BOOT_FD_PARTITION] = open(path("image").c_str(), O_RDONLY | O_CLOEXEC);
    }

    int send_image(unsigned size) { return protocol_.std_dl_send_bin(2, image_, 100, size); }

    ProtocolVelo protocol_;
    int image_ = -1;
};

TEST_F(Link, SendsAWordAndChecksTheAnswer) {
    const struct {
        uint32_t req, exp;
        const char* modem;
        int result;
        Lines lines;  // between the request's line and the failure's
    } cases[] = {
            {0, 0, "", 0, {}},
            {0x9D01, 0, ">9D01", 0, {}},
            {0, 0xA001, "<A001", 0, {}},
            {0x9200, 0xA200, ">9200 <A200", 0, {}},
            {0, 0xA200, "<A200+0", 0, {}},
            {0x9200, 0xA200, ">9200 <A300", -14, {"ERR! resp 0xA300 != exp 0xA200"}},
            {0, 0xA200, "<T:?", -14, {"ERR! resp 0x3F != exp 0xA200"}},
            {0, 0xA200, "", -5, {"ERR! poll fail (events 0x1, TIMEOUT)", "ERR! std_udl_poll fail"}},
            {0x9200, 0xA200, "<0", -1, {"! ERR! write fail"}},
            {0x9200, 0xA200, ">9200 <0", -14, {"ERR! resp 0x0 != exp 0xA200"}},
    };
    for (int32_t* node : {&boot().fd[BOOT_FD_NODE], &dump().fd[DUMP_FD_NODE]}) {
        const operation op = node == boot().fd ? DOWNLOAD : UPLOAD;
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(c.modem) + " on node " + std::to_string(op));
            kernel().timeouts.clear();
            const auto call = [&] { return protocol_.std_udl_req_resp(op, c.req, c.exp); };
            EXPECT_EQ(with_modem(*node, c.modem, call), c.result);
            char text[64];
            Lines wanted = c.lines;
            snprintf(text, sizeof(text), "request:0x%08X", c.req);
            if (c.req != 0) wanted.insert(wanted.begin(), text);
            snprintf(text, sizeof(text), "ERR! request:0x%08X expected:0x%08X", c.req, c.exp);
            if (c.result != 0) wanted.push_back(text);
            Lines lines = said();
            for (std::string& line : lines)
                line.erase(line.find("std_udl"), line.find(": ") + 2 - line.find("std_udl"));
            EXPECT_EQ(lines, wanted);
            EXPECT_EQ(kernel().timeouts, std::vector<int>(c.result == -5 ? 1 : 0, 30000));
        }
    }
}

TEST_F(Link, FailsAPollThatEndsWithPollhupOnly) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    boot().fd[BOOT_FD_NODE] = ends[0];
    close(ends[1]);
    EXPECT_EQ(protocol_.std_udl_poll(DOWNLOAD, POLLIN, 30000), -5);
    EXPECT_THAT(said(), ElementsAre("std_udl_poll: ERR! poll fail (events 0x1 != revents 0x10)"));
}

TEST_F(Link, SendsAnImageInFullFramesAndAPartialOne) {
    const struct {
        unsigned size;
        const char* modem;
        const char* frames;
    } cases[] = {
            {0, "<A201", "0"},
            {1, ">9201:1:1:1 <A201", "1"},
            {2047, ">9201:1:1:2047 <A201", "1"},
            {2048, ">9201:1:1:2048 <A201", "1"},
            {2049, ">9201:2:1:2048 >9201:2:2:1 <A201", "2"},
            {4096, ">9201:2:1:2048 >9201:2:2:2048 <A201", "2"},
            {5000, ">9201:3:1:2048 >9201:3:2:2048 >9201:3:3:904 <A201", "3"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        EXPECT_EQ(with_modem(boot().fd[BOOT_FD_NODE], c.modem, [&] { return send_image(c.size); }),
                  0);
        const std::string size = "std_dl_send_bin: size = " + std::to_string(c.size) + " (0x";
        EXPECT_THAT(said(),
                    ElementsAre("std_dl_send_bin: stage = 2", StartsWith(size),
                                "std_dl_send_bin: mtu = 2064", "std_dl_send_bin: mss = 2048",
                                std::string("std_dl_send_bin: frames = ") + c.frames));
    }
}

TEST_F(Link, ZeroesTheRestOfAPartialFrame) {
    udl_frame frame;
    memset(&frame, 'x', sizeof(frame));
    frame.cmd = 0x9201;
    frame.num_frames = frame.curr_frame = frame.len = 1;
    lseek(image_, 100, SEEK_SET);
    with_modem(boot().fd[BOOT_FD_NODE], ">9201:1:1:1",
               [&] { return protocol_.std_dl_tx_frame(image_, &frame); });
    EXPECT_EQ(std::count(frame.data + 1, std::end(frame.data), '\0'), UDL_MSS - 1);
}

TEST_F(Link, ReportsAFailedExchangeWithItsStage) {
    const auto image = [this](unsigned size) { return [=] { return send_image(size); }; };
    const auto too_long = [&] {
        udl_frame frame = {0x9201, 1, 1, UDL_MSS + 1, {}};
        return protocol_.std_dl_tx_frame(image_, &frame);
    };
    const auto no_file = [&] { return protocol_.std_dl_send_bin(2, -1, 0, 1); };
    const auto start = [&] { return protocol_.std_udl_stage_start(DOWNLOAD, 2); };
    const auto done = [&] { return protocol_.std_udl_stage_done(DOWNLOAD, 12, 99); };
    const auto crc = [&] { return protocol_.std_dl_send_crc(2, 0xC0FFEE); };
    const auto handshake = [&] { return protocol_.std_boot_finish_handshake(); };
    const char* no_answer = "std_udl_req_resp: ERR! request:0x00000000 expected:0x0000A201";
    const struct {
        std::function<int()> exchange;
        const char* modem;
        int result;
        const char* line;  // one of those logged
    } cases[] = {
            {image(8193), ">9201:5:1:2048 >9201:5:2:2048 >9201:5:3:2048 >9201:5:4:2048", -14,
             "std_dl_tx_frame: ERR! rcvd 0 != frm->len 1"},
            {image(2048), "<0", -1, "! std_dl_tx_frame: ERR! write fail"},
            {image(2048), "<0", -1, "std_dl_send_bin: ERR! std_dl_tx_frame fail"},
            {image(1), ">9201:1:1:1 <A20D", -14, no_answer},
            {image(1), ">9201:1:1:1", -5, no_answer},
            {image(1), ">9201:1:1:1", -5, "std_dl_send_bin: ERR! std_udl_req_resp fail"},
            {too_long, "", -14, "std_dl_tx_frame: ERR! frm->len 2049 > mss 2048"},
            {no_file, "", -1, "! std_dl_send_bin: ERR! lseek fail"},
            {start, ">9200 <A200", 0, "std_udl_req_resp: request:0x00009200"},
            {start, ">9200 <A20D", -14,
             "std_udl_stage_start: ERR! [stage 2] START fail (req:0x9200 exp:0xA200)"},
            {done, ">9C0D <AC0D", 0, "std_udl_req_resp: request:0x00009C0D"},
            {done, ">9C0D <AC00", -14,
             "std_udl_stage_done: ERR! [stage 12] DONE fail (req:0x9C0D exp:0xAC0D)"},
            {crc, ">920C+C0FFEE <A20C", 0, "std_dl_send_crc: cmd = 0x920c, crc = 0xc0ffee"},
            {crc, ">920C+C0FFEE <A30C", -14, "std_dl_send_crc: ERR! std_udl_req_resp fail"},
            {crc, "<0", -1, "! std_dl_send_crc: ERR! write fail"},
            {handshake, ">900D <A00D >9F00 <AF00", 0, "std_udl_req_resp: request:0x00009F00"},
            {handshake, ">900D <A00D >9F00 <AF0D", -14,
             "std_boot_finish_handshake: ERR! std_udl_stage_done fail"},
            {handshake, ">900D", -5, "std_boot_finish_handshake: ERR! std_udl_stage_done fail"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.modem);
        EXPECT_EQ(with_modem(boot().fd[BOOT_FD_NODE], c.modem, c.exchange), c.result);
        EXPECT_THAT(said(), Contains(c.line));
    }
}

}  // namespace
}  // namespace rvd::test

// The picture: what it shows, and that it stays a picture whatever a phone says.
#include "report/print/picture.h"

#include <gtest/gtest.h>

#include "report/parse/words.h"

namespace rvd::report {
namespace {

std::vector<Event> said(std::initializer_list<const char*> lines) {
    std::vector<Event> events;
    for (const char* text : lines) {
        const auto line = parse_line(Sink::kCrashLog, text);
        events.push_back({});
        events.back().step = line->tag;
        events.back().message = line->message;
        events.back().text = text;
        events.back().failure = line->fails();
        events.back().meaning = meaning_of(*line);
    }
    return events;
}

std::vector<std::string> shown(const std::vector<Event>& events) {
    constexpr const char* kNames[] = {"phone", "daemon", "driver", "loader"};
    std::vector<std::string> texts;
    for (const Message& message : messages_of(tell(events))) {
        texts.push_back(std::string(message.failure ? "! " : "") +
                        kNames[static_cast<size_t>(message.from)] + " > " +
                        kNames[static_cast<size_t>(message.to)] + ": " + message.text);
    }
    return texts;
}

TEST(Messages, AWordIsAnsweredUnlessALineSaysOtherwise) {
    EXPECT_EQ(shown(said({"std_udl_req_resp: request:0x0000900D", "boot: Complete normal bootup"})),
              (std::vector<std::string>{"daemon > loader: 0x900D: DONE of stage 0, asked",
                                        "loader > daemon: 0xA00D: DONE of stage 0, answered",
                                        "daemon > driver: COMPLETE_NORMAL_BOOTUP"}));
    EXPECT_EQ(
            shown(said({"std_udl_req_resp: request:0x0000900D",
                        "std_udl_req_resp: ERR! resp 0xA00C != exp 0xA00D"})),
            (std::vector<std::string>{
                    "daemon > loader: 0x900D: DONE of stage 0, asked",
                    "! loader > daemon: 0xA00C: CRC of stage 0, answered instead of DONE of stage "
                    "0, answered"}));
    EXPECT_EQ(shown(said({"std_udl_req_resp: request:0x00009D00", "boot: x"})).back(),
              "loader > daemon: 0xAD00: START of stage 13 (dump), answered");
    EXPECT_EQ(shown(said({"_save_logs: /data/vendor/log/rvd/rvd_only_umts.log"})),
              (std::vector<std::string>{"daemon > phone: rvd_only_umts.log"}));
    // A step of the dump is answered with frames, not with a word.
    EXPECT_EQ(shown(said({"std_udl_req_resp: request:0x00009D01",
                          "std_udl_poll: ERR! poll fail (events 0x1, TIMEOUT)"})),
              (std::vector<std::string>{
                      "daemon > loader: 0x9D01: step 1 of the dump, asked",
                      "! daemon > daemon: std_udl_poll: ERR! poll fail (events 0x1, TIMEOUT)"}));
}

TEST(Pictures, ForeignTextIsEscaped) {
    Message hostile;
    hostile.text = "</text><script>alert(1)</script> & \"\033[2J\xff";
    hostile.text += std::string(200, 'x');
    const std::string svg = picture("<a href='x'>", {hostile});
    EXPECT_EQ(svg.find("<script"), std::string::npos);
    EXPECT_EQ(svg.find("<a "), std::string::npos);
    EXPECT_NE(svg.find("&lt;/text&gt;&lt;script&gt;alert(1)&lt;/script&gt; &amp; &quot;\\x1b[2J"),
              std::string::npos);
    for (const char c : svg)
        EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= 0x20);
}

TEST(Pictures, ATimeStandsOnceAndANoteWhereThereIsRoom) {
    Message note;
    note.at = 1'500'000;
    note.from = note.to = Actor::kPhone;
    note.text = "left";
    Message other = note;
    other.from = other.to = Actor::kLoader;
    other.text = "right";
    const std::string svg = picture("", {note, other});
    EXPECT_NE(svg.find("text-anchor=\"start\">left<"), std::string::npos);
    EXPECT_NE(svg.find("x=\"1130\" y=\"124\" text-anchor=\"end\">right<"), std::string::npos);
    EXPECT_NE(svg.find("1.500000"), std::string::npos);
    EXPECT_EQ(svg.find("1.500000"), svg.rfind("1.500000"));
}

TEST(Pictures, EndSomewhere) {
    const std::string svg = picture("", std::vector<Message>(kPictureRows + 5));
    EXPECT_NE(svg.find("and 5 more"), std::string::npos);
}

}  // namespace
}  // namespace rvd::report

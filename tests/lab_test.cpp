// The reader of scenario files, and the patterns in them.
#include <gtest/gtest.h>

#include "lab/base.h"
#include "lab/scenario/scenario.h"

namespace rvd::lab {

namespace {

struct Refusal {
    const char* text;  // after [[case]]
    const char* message;
};

constexpr Refusal kRefusals[] = {
        {"expect.end = 'waits'\nmodm = 'tq720'",
         "3: unknown key \"modm\"; did you mean \"modem\"?"},
        {"modem = 'tq721'", "2: unknown modem \"tq721\"; expected \"tq720\", \"vk880\""},
        {"about = 'x'", "1: the case expects nothing; say so with expect.end = \"waits\""},
        {"about = \"abc\nmodem = 'tq720'", "2: the string that begins here is not terminated"},
        {"about = 1", "2: expected a string"},
        {"limit = '3 parsecs'", "2: expected a time as \"250 ms\""},
        {"start = 'yesterday'", "2: \"yesterday\" is not a time as \"2020-10-01 12:30:00\""},
        {"about = 'caf\xC3\xA9'", "2: a character that is not ASCII"},
        // Paths must not leave the phone.
        {"phone.missing = ['/../../tmp/x']", "2: \"/../../tmp/x\" is not a path of the phone"},
        {"phone.missing = ['/']", "is not a path of the phone"},
        {"phone.missing = ['/usr/lib']", "is not a path of the phone"},
        {"phone.read_only = ['data']", "2: \"data\" is not a path of the phone"},
        {"phone.files = { '/data/../x' = '' }", "is not a path of the phone"},
        {"phone.files = { '/database' = '' }", "is not a path of the phone"},
        {"phone.fillers = { '/data//x' = 1 }", "is not a path of the phone"},
        {"properties = { '../../x' = '1' }", "2: \"../../x\" is not a property's name"},
        {"properties = { 'a..b' = '1' }", "is not a property's name"},
        {"timeline = [{ waits = true, set = { 'a/b' = '1' } }]", "is not a property's name"},
        {"expect.properties = { '' = '1' }", "is not a property's name"},
        {"expect.files = [{ path = '/data/*/x' }]", "2: \"/data/*/x\" is not a path without"},
        {"expect.absent = ['../x']", "2: \"../x\" is not a path without"},
        // The firmware.
        {"firmware.table = ''", "2: a table has at least one entry"},
        {"firmware.table = 'TOC ABCDEFGHIJKLM'", "\"ABCDEFGHIJKLM\" is longer than 12 characters"},
        {"firmware.table = 'TOC BOOT:-1'", "2: \"BOOT:-1\" is not an entry"},
        {"firmware.table = 'TOC BOOT:5G'", "\"BOOT:5G\" is not an entry"},
        {"firmware.table = 'TOC BOOT:4294967296'", "is not an entry"},
        {"firmware.table = 'TOC BOOT:1:2'", "\"BOOT:1:2\" is not an entry"},
        // Numbers and words.
        {"driver.regions.shmem.size = -1", "2: expected a number from 0 to 4294967295"},
        {"driver.regions.shmen.size = 1", "unknown region \"shmen\"; expected \"shmem\", \"vss\""},
        {"driver.answer = [{ request = 'POWER_OM', result = 1 }]",
         "2: unknown request \"POWER_OM\"; did you mean \"POWER_ON\"?"},
        {"driver.answer = [{ request = 'POWER_ON' }]", "2: driver.answer[] needs \"result\""},
        {"driver.panic = 'never'", "unknown panic \"never\"; expected \"upload\", \"returns\""},
        {"dump.steps = [-1]", "2: expected a number from 0"},
        {"driver.regions.vss.packet = 0", "2: expected a number from 1 to 8192"},
        {"loader = [{ at = '0xa00d', silent = true }]", "2: \"0xa00d\" is not a packet"},
        {"loader = [{ silent = true }]", "2: loader[] needs \"at\""},
        {"fault = [{ call = 'opne', error = 'EIO' }]",
         "2: unknown call \"opne\"; did you mean \"open\"?"},
        {"fault = [{ call = 'open', error = 'EOI' }]",
         "2: unknown errno \"EOI\"; did you mean \"EIO\"?"},
        {"fault = [{ call = 'read', error = 'EIO', cut = 1 }]",
         "2: fault[] takes only one of \"error\", \"cut\", \"hang_up\""},
        {"fault = [{ call = 'read', error = 'EIO', nth = 0 }]", "2: expected a number from 1"},
        // The timeline.
        {"timeline = [{ waits = true, at = '1 s', state = 1 }]",
         "2: timeline[] takes only one of \"at\""},
        {"timeline = [{ state = 1 }]", "2: timeline[] needs one of \"at\""},
        {"timeline = [{ waits = true }]", "2: timeline[] needs one of \"state\""},
        {"timeline = [{ request = 'POWER', state = 1 }]", "2: unknown request \"POWER\""},
        {"loader = [{ at = '0xA00D', sillent = true }]",
         "2: unknown key \"sillent\" in loader[]; did you mean \"silent\"?"},

        // Expectations.
        {"expect.requests = ['LINK 0x9F00']", "2: unknown request \"LINK 0x9F00\""},
        {"expect.no_requests = ['GET_LOGS*']", "2: unknown request \"GET_LOGS*\""},
        {"expect.end = 'wait'", "2: \"wait\" is not an end: \"waits\""},
        {"expect.end = 'exit 256'", "2: \"exit 256\" is not an end"},
        {"expect.end = 'stop'", "the run cannot end with \"stop\": no event stops it"},
        {"expect.end = 'upload'\ndriver.panic = 'returns'", "cannot end with \"upload\""},
        {"expect.files = [{ path = '/x', mode = '999' }]",
         "2: \"999\" is not a mode of four octal"},
        {"expect.files = [{ path = '/x', equals = 'dmp' }]", "unknown content \"dmp\"; did you"},
        {"expect.files = [{ path = '/x', size = -1 }]", "2: expected a number from 0"},
        {"expect.files = [{ size = 1 }]", "2: expect.files[] needs \"path\""},
};

std::string refusal_of(const std::string& text) {
    try {
        parse_scenarios(text, "f.toml");
        return "accepted";
    } catch (const Error& refusal) {
        return refusal.what();
    }
}

TEST(Scenario, IsRefusedWithTheLineOfItsError) {
    for (const Refusal& refusal : kRefusals) {
        const std::string message = refusal_of(std::string("[[case]]\n") + refusal.text);
        EXPECT_NE(message.find(refusal.message), message.npos) << refusal.text << "\n  " << message;
        EXPECT_EQ(message.find("f.toml:"), 0u) << message;
    }
    // No key is near enough to be suggested.
    EXPECT_EQ(refusal_of("[[case]]\nquantum = 1"), "f.toml:2: unknown key \"quantum\"");
    EXPECT_EQ(refusal_of(""), "f.toml:1: no [[case]] in this file");
    EXPECT_EQ(refusal_of("modem = 'tq720'"), "f.toml:1: no [[case]] in this file");
    EXPECT_EQ(refusal_of("\n[case]\nname = 'x'"), "f.toml:2: each case begins with [[case]]");
}

TEST(Scenario, MergesEachCaseIntoTheBaseKeyByKey) {
    const auto cases = parse_scenarios(
            "modem = 'vk880'\nfirmware.table = 'TOC BOOT:4K@16>0x2000#7'\nproperties.a = '1'\n"
            "[[case]]\nname = 'one'\nproperties.b = '2'\nexpect.log = []\n"
            "[[case]]\nmodem = 'tq720'\nexpect.end = 'exit 0'",
            "f.toml");
    ASSERT_EQ(cases.size(), 2u);
    EXPECT_EQ(cases[0].properties.count("a") + cases[0].properties.count("b"), 2u);
    EXPECT_EQ(cases[0].expect.end, "waits");
    EXPECT_EQ(cases[0].name + cases[0].modem + cases[1].name + cases[1].modem,
              "onevk880f.tomltq720");
    const FirmwareEntry& boot = cases[0].firmware.entries.at(1);
    EXPECT_EQ(boot.name, "BOOT");
    EXPECT_EQ(*boot.size, 4096);
    EXPECT_EQ(*boot.b_off, 16);
    EXPECT_EQ(*boot.m_off, 0x2000);
    EXPECT_EQ(*boot.crc, 7);
}

TEST(Pattern, MatchesTheWholeText) {
    struct {
        const char *pattern, *text;
        bool matches;
    } const rows[] = {
            {"", "", true},
            {"*", "", true},
            {"a*c", "abbc", true},
            {"a*c", "abcd", false},
            {"*ab", "aab", true},
            {"a?c", "abc", true},
            {"a?c", "ac", false},
            {"toc[2]*", "toc[2] = x", true},
            {"x[0-3].log", "x3.log", true},
            {"x[0-3].log", "x4.log", false},
            {"x[!0-3]", "x4", true},
            {"x[!0-3]", "x3", false},
            {"*[ab]*[01]", "zaz1", true},
            {"[step 1]*", "[step 1] saved", true},
            {"a[", "a[", true},
    };
    for (const auto& row : rows)
        EXPECT_EQ(matches(row.pattern, row.text), row.matches) << row.pattern << " " << row.text;
}

}  // namespace

}  // namespace rvd::lab

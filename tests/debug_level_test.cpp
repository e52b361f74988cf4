// Debug level and debug option, from the kernel command line and the property that overrides it.
#include <atomic>
#include <thread>

#include "tests/support/phone.h"

namespace rvd::test {
namespace {

using DebugLevel = Phone;
using ThreadsDebugLevel = Phone;

TEST_F(DebugLevel, IsSetByTheFirstKeyWithAKnownValue) {
    const std::string filler(1023 - strlen("a=b androidboot.debug_level=0x4948"), 'f');
    const struct {
        int before;
        int after;
        std::string cmdline;
        std::string line;  // one of those logged
    } cases[] = {
            {0, 2, "androidboot.debug_level=0x4948 androidboot.force_upload=0x5\n",
             "androidboot.debug_level=0x4948, 2"},
            {0, 1, "a androidboot.debug_level=0x4945", ""},
            {2, 0, "androidboot.debug_level=4f4c kro_debug.level=1", ""},
            {2, 0, "androidboot.debug_level=0x4F4Cz", ""},
            {0, 0, "androidboot.debug_level=0x494D",
             "androidboot.debug_level=0x494D, debug level undefined"},
            {0, 1, "androidboot.debug_level=0x494D kro_debug.level=2", "kro_debug.level=2, 1"},
            {0, 1, "kro_debug.level=1", ""},
            {0, 0, "kro_debug.level=0 kro_debug.enable=1", ""},
            {2, 2, "kro_debug.level=0", ""},
            {0, 1, "kro_debug.level=", ""},
            {0, 1, "kro_debug.enable=1", "kro_debug.enable=1, 1"},
            {2, 2, "kro_debug.enable=0", ""},
            {0, 1, "androidboot.force_upload=0x5", "force_upload = 0x5"},
            {0, 1, "androidboot.force_upload=0x5", "force_upload on!"},
            {2, 1, "androidboot.debug_level=0x4F4C androidboot.force_upload=0x5", ""},
            {0, 0, "androidboot.force_upload=0x50", ""},
            {0, 0, "androidboot.force_upload=5", ""},
            {2, 2, "androidboot.force_upload=0x5", ""},
            {0, 0, "a  androidboot.debug_level=0x4948", ""},  // an empty word ends the search
            {0, 0, " androidboot.debug_level=0x4948", ""},
            {0, 0, "xandroidboot.debug_level=0x4948", ""},
            {0, 0, filler + " a=b androidboot.debug_level=0x494", ""},
            {0, 2, filler.substr(1) + " a=b androidboot.debug_level=0x4948", ""},
            {0, 0, filler + " a=b androidboot.debug_level=0x4948", ""},  // one byte too long
            {0, 0, "", ""},
            {1, 1, "\n", "debug level=1, cp_debug=0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cmdline);
        write_file(kCmdline, c.cmdline);
        debug_level = c.before;
        Log::check_debug_level();
        EXPECT_EQ(debug_level, c.after);
        const Lines lines = said();
        EXPECT_TRUE(c.line == "" ||
                    std::count(lines.begin(), lines.end(), "check_debug_level: " + c.line) > 0);
        EXPECT_EQ(lines.back(),
                  "check_debug_level: debug level=" + std::to_string(c.after) + ", cp_debug=0");
    }
}

TEST_F(ThreadsDebugLevel, NeverShowsALevelThatALaterKeyOverrides) {
    write_file(kCmdline, "androidboot.debug_level=0x4f4c androidboot.force_upload=0x5");
    std::atomic<bool> done{false};
    int lowest = 1;
    std::thread saver([&] {
        while (!done)
            lowest = std::min(lowest, debug_level.load());
    });
    for (int i = 0; i < 300; ++i)
        Log::check_debug_level();
    done = true;
    saver.join();
    EXPECT_EQ(lowest, 1);
}

TEST_F(DebugLevel, TakesTheDebugOptionFromThePropertyFirst) {
    const struct {
        const char* word;      // of the kernel command line
        const char* property;  // "": not set
        int after;             // 7 before
        const char* line;      // "": none; null: the two lines for the word
    } cases[] = {
            {"kro_debug.cp=2", "4", 4, "cp_debug=7 overwritten by prop=4"},
            {"kro_debug.cp=2", "0", 0, "cp_debug=7 overwritten by prop=0"},
            {"kro_debug.cp=3", "-1", 3, nullptr},
            {"kro_debug.cp=51", "", 5, nullptr},
            {"kro_debug.cp=a", "", 49, nullptr},
            {"kro_debug.cp=", "", -48, nullptr},
            {"kro_debug.cpx=1", "", 7, ""},
            {"", "", 7, ""},
    };
    for (const auto& c : cases) {
        const std::string word = c.word;
        SCOPED_TRACE(word + " with " + c.property);
        write_file(kCmdline, "a " + word + " b");
        set_property("persist.vendor.rvd.debug_cp_opt", c.property);
        cp_debug = 7;
        Log::check_debug_cp_opt();
        EXPECT_EQ(cp_debug, c.after);
        Lines wanted;
        if (c.line == nullptr)
            wanted = {"get_cmdline_str: find str " + word + " form /proc/cmdline",
                      "check_debug_cp_opt: " + word + ", " + std::to_string(c.after)};
        else if (*c.line != '\0')
            wanted = {std::string("check_debug_cp_opt: ") + c.line};
        EXPECT_EQ(said(), wanted);
    }
}

}  // namespace
}  // namespace rvd::test

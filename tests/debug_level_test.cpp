// The two debug values: the kernel command line, and the property that overrides it.
#include <atomic>
#include <thread>

#include "log/Log.h"
#include "tests/support/phone.h"
#include "util/Util.h"

namespace rvd::test {
namespace {

using testing::Contains;
using testing::IsSubsetOf;

using DebugLevel = Phone;

TEST_F(DebugLevel, TheFirstKeyThatSaysSoDecides) {
    const std::string filler(1023 - strlen("a=b androidboot.debug_level=0x4948"), 'f');
    const struct {
        std::string cmdline;
        int before;
        int after;
        Lines lines;  // among those said
    } cases[] = {
            {"androidboot.debug_level=0x4948 androidboot.force_upload=0x5\n",
             0,
             2,
             {"check_debug_level: androidboot.debug_level=0x4948, 2"}},
            {"a androidboot.debug_level=0x4945", 0, 1, {}},
            {"androidboot.debug_level=4f4c kro_debug.level=1", 2, 0, {}},
            {"androidboot.debug_level=0x4F4Cz", 2, 0, {}},
            {"androidboot.debug_level=0x494D",
             0,
             0,
             {"check_debug_level: androidboot.debug_level=0x494D, debug level undefined"}},
            {"androidboot.debug_level=0x494D kro_debug.level=2",
             0,
             1,
             {"check_debug_level: kro_debug.level=2, 1"}},
            {"kro_debug.level=1", 0, 1, {}},
            {"kro_debug.level=0 kro_debug.enable=1", 0, 0, {}},
            {"kro_debug.level=0", 2, 2, {}},
            {"kro_debug.level=", 0, 1, {}},
            {"kro_debug.enable=1", 0, 1, {"check_debug_level: kro_debug.enable=1, 1"}},
            {"kro_debug.enable=0", 2, 2, {}},
            {"androidboot.force_upload=0x5",
             0,
             1,
             {"check_debug_level: force_upload = 0x5", "check_debug_level: force_upload on!"}},
            {"androidboot.debug_level=0x4F4C androidboot.force_upload=0x5", 2, 1, {}},
            {"androidboot.force_upload=0x50", 0, 0, {}},
            {"androidboot.force_upload=5", 0, 0, {}},
            {"androidboot.force_upload=0x5", 2, 2, {}},
            {"a  androidboot.debug_level=0x4948", 0, 0, {}},  // an empty word ends the walk
            {" androidboot.debug_level=0x4948", 0, 0, {}},
            {"xandroidboot.debug_level=0x4948", 0, 0, {}},
            {filler + " a=b androidboot.debug_level=0x494", 0, 0, {}},
            {filler.substr(1) + " a=b androidboot.debug_level=0x4948", 0, 2, {}},
            {filler + " a=b androidboot.debug_level=0x4948", 0, 0, {}},  // cut by one byte
            {"", 0, 0, {}},
            {"\n", 1, 1, {"check_debug_level: debug level=1, cp_debug=0"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cmdline);
        set_cmdline(c.cmdline);
        debug_level = c.before;
        Log::check_debug_level();
        EXPECT_EQ(debug_level, c.after);
        const Lines lines = said();
        EXPECT_THAT(c.lines, IsSubsetOf(lines));
        EXPECT_EQ(lines.back(),
                  "check_debug_level: debug level=" + std::to_string(c.after) + ", cp_debug=0");
    }
}

using ThreadsDebugLevel = Phone;

TEST_F(ThreadsDebugLevel, ALevelThatALaterKeyOverrulesIsNeverSeen) {
    set_cmdline("androidboot.debug_level=0x4f4c androidboot.force_upload=0x5");
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

TEST_F(DebugLevel, ThePropertyOverridesTheKernelsModemOption) {
    const struct {
        const char* cmdline;
        const char* option;  // the property
        int after;           // 7 before
        Lines lines;
    } cases[] = {
            {"kro_debug.cp=2", "4", 4, {"check_debug_cp_opt: cp_debug=7 overwritten by prop=4"}},
            {"kro_debug.cp=2", "0", 0, {"check_debug_cp_opt: cp_debug=7 overwritten by prop=0"}},
            {"kro_debug.cp=3",
             "-1",
             3,
             {"get_cmdline_str: find str kro_debug.cp=3 form /proc/cmdline",
              "check_debug_cp_opt: kro_debug.cp=3, 3"}},
            {"a kro_debug.cp=51 b",
             "",
             5,
             {"get_cmdline_str: find str kro_debug.cp=51 form /proc/cmdline",
              "check_debug_cp_opt: kro_debug.cp=51, 5"}},
            {"kro_debug.cp=a",
             "",
             49,
             {"get_cmdline_str: find str kro_debug.cp=a form /proc/cmdline",
              "check_debug_cp_opt: kro_debug.cp=a, 49"}},
            {"kro_debug.cp=",
             "",
             -48,
             {"get_cmdline_str: find str kro_debug.cp= form /proc/cmdline",
              "check_debug_cp_opt: kro_debug.cp=, -48"}},
            {"kro_debug.cpx=1", "", 7, {}},
            {"", "", 7, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.cmdline) + " with " + c.option);
        set_cmdline(c.cmdline);
        set_property("persist.vendor.rvd.debug_cp_opt", c.option);
        cp_debug = 7;
        Log::check_debug_cp_opt();
        EXPECT_EQ(cp_debug, c.after);
        EXPECT_EQ(said(), c.lines);
    }
}

}  // namespace
}  // namespace rvd::test

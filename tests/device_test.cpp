// What the daemon asks of the device around the modem: NV files, factory file, carrier, reboot.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "bootdump/BootDump.h"
#include "protocol/ProtocolVelo.h"
#include "tests/support/phone.h"
#include "util/Util.h"

namespace rvd::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Device : public Phone {
  protected:
    ProtocolVelo protocol_;
};

TEST_F(Device, AMissingNvFileIsMadeErased) {
    const std::string nv = path("nv");
    const int size = 3 * 64 * 1024 + 1;  // several blocks and a rest
    int fd = -2;
    ASSERT_TRUE(Util::getNvFd(CP_BOOT_MODE_NORMAL, nv.c_str(), size, &fd));
    EXPECT_TRUE(read_file(nv) == std::string(static_cast<size_t>(size), '\xFF'));
    struct stat status = {};
    stat(nv.c_str(), &status);
    EXPECT_EQ(status.st_mode & 07777, 0660u);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_THAT(said(),
                ElementsAre("getNvFd: ERR! no NV(" + nv + ") file",
                            "create_empty_nv: create NV(" + nv + ")",
                            "create_empty_nv: NV(" + nv + ") saved 196609 bytes",
                            "getNvFd: NV(" + nv + ") opened (fd " + std::to_string(fd) + ")"));
    close(fd);
}

TEST_F(Device, AnNvFileIsOpenedAsItIsOrRefused) {
    const std::string there = path("there"), missing = path("missing"), astray = path("no/where");
    const std::string loop = path("loop");
    write_file(there, "short");
    std::filesystem::create_symlink(loop, loop);
    const struct {
        std::string path;
        cp_boot_mode mode;
        int size;
        bool result;
        int fd;       // -2: nothing stored; 0: an open one
        Lines lines;  // none: not looked at
    } cases[] = {
            {there, CP_BOOT_MODE_NORMAL, 99, true, 0, {}},
            {there, CP_BOOT_MODE_DUMP, 99, true, -1, {}},
            {missing, CP_BOOT_MODE_DUMP, 99, true, -1, {}},
            {"", CP_BOOT_MODE_NORMAL, 99, true, -1, {}},
            {loop,
             CP_BOOT_MODE_NORMAL,
             99,
             false,
             -2,
             {"! getNvFd: ERR! NV(" + loop + ") open fail"}},
            {astray,
             CP_BOOT_MODE_NORMAL,
             99,
             false,
             -2,
             {"getNvFd: ERR! no NV(" + astray + ") file",
              "create_empty_nv: create NV(" + astray + ")",
              "! create_empty_nv: ERR! NV(" + astray + ") open fail",
              "getNvFd: ERR! create_empty_nv(" + astray + ", 99) fail"}},
            {missing,
             CP_BOOT_MODE_NORMAL,
             -1,
             false,
             -2,
             {"getNvFd: ERR! no NV(" + missing + ") file",
              "create_empty_nv: create NV(" + missing + ")",
              "create_empty_nv: ERR! malloc(-1) fail",
              "getNvFd: ERR! create_empty_nv(" + missing + ", -1) fail"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        int fd = -2;
        EXPECT_EQ(Util::getNvFd(c.mode, c.path.c_str(), c.size, &fd), c.result);
        EXPECT_EQ(std::min(fd, 0), c.fd);
        if (fd >= 0) close(fd);
        const Lines lines = said();
        if (c.lines.empty()) continue;
        EXPECT_EQ(lines, c.lines);
    }
    EXPECT_EQ(read_file(there), "short");
    EXPECT_EQ(Util::create_empty_nv(path("empty").c_str(), 0), -14);
    EXPECT_EQ(last_said(), "create_empty_nv: ERR! wrong size(0)");
    const FullDisk disk(100000);
    EXPECT_EQ(Util::create_empty_nv(missing.c_str(), 100001), -14);
    EXPECT_EQ(last_said(), "! create_empty_nv: NV(" + missing + ") write fail");
}

TEST_F(Device, TheSimCountStandsBehindTheFirstEqualsSign) {
    const struct {
        std::string content;
        int result;
        const char* line;
    } cases[] = {
            {"sims=2\n", 2, "sim_count: 2"},
            {"a=1=4", 1, "sim_count: 1"},
            {"sims=", -48, "sim_count: -48"},
            {"sims=\xFF", 207, "sim_count: 207"},
            {"sims 2", -22, "can't find token!"},
            {"", -22, "can't find token!"},
            {std::string(126, 's') + "=3", 3, "sim_count: 3"},
            {std::string(127, 's') + "=3", -48, "sim_count: -48"},  // the digit is byte 129
            {std::string(128, 's') + "=3", -22, "can't find token!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content);
        write_file("/efs/factory.prop", c.content);
        EXPECT_EQ(protocol_.get_factory_prop(), c.result);
        EXPECT_THAT(said(), ElementsAre(std::string("get_factory_prop: ") + c.line));
    }
    unlink("/efs/factory.prop");
    EXPECT_EQ(protocol_.get_factory_prop(), -22);
    EXPECT_EQ(last_said(), "get_factory_prop: /efs/factory.prop open fail(not support)");
    std::filesystem::create_directory("/efs/factory.prop");
    EXPECT_EQ(protocol_.get_factory_prop(), -1);
    EXPECT_EQ(last_said(), "! get_factory_prop: /efs/factory.prop read fail");
}

TEST_F(Device, TwoCarriersWantARebootAndNoOther) {
    for (const char* code : {"TMB", "VZW"}) {
        set_property("ro.vtc.sales_code", code);
        EXPECT_TRUE(protocol_.check_vtc_sales_code()) << code;
    }
    for (const char* code : {"", "TMBX", "VZWX", "tmb", "vzw", "TM", "XTMB"}) {
        set_property("ro.vtc.sales_code", code);
        EXPECT_FALSE(protocol_.check_vtc_sales_code()) << code;
    }
    said();
    set_property("ro.vtc.sales_code", "VZW");
    protocol_.check_vtc_sales_code();
    EXPECT_THAT(said(), ElementsAre("check_vtc_sales_code: sales_code:VZW"));
}

TEST_F(Device, ARebootIsAskedForWithTheWholeReasonOrNotAtAll) {
    for (const std::string& reason : {std::string("secure"), std::string(84, 'r')}) {
        EXPECT_EQ(protocol_.std_reboot_system(reason.c_str()), 0);
        EXPECT_EQ(property("sys.powerctl"), "reboot," + reason);
    }
    EXPECT_THAT(said(), IsEmpty());
    EXPECT_LT(protocol_.std_reboot_system(std::string(85, 's').c_str()), 0);
    EXPECT_EQ(property("sys.powerctl"), "reboot," + std::string(84, 'r'));
    EXPECT_EQ(last_said(), "std_reboot_system: ERR! failed to setprop [sys.powerctl](reboot," +
                                   std::string(84, 's') + ")");
}

TEST_F(Device, SmallLettersAloneTurnLarge) {
    char text[] = "............";
    Util::toUpperCase("`azm{@AZ[09_", text);
    EXPECT_STREQ(text, "`AZM{@AZ[09_");
}

}  // namespace
}  // namespace rvd::test

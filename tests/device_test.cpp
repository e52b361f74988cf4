// The device around the modem: NV files, factory file, carrier, reboot.
#include "tests/support/phone.h"
#include "util/Util.h"

namespace rvd::test {
namespace {

class Device : public Phone {
  protected:
    ProtocolVelo protocol_;
};

TEST_F(Device, CreatesAMissingNvFileErasedInOneWriteOrInBlocks) {
    constexpr int kSize = 3 * 64 * 1024 + 1;
    const std::string nv = path("nv");
    int fd = -2;
    EXPECT_TRUE(Util::getNvFd(CP_BOOT_MODE_NORMAL, nv.c_str(), kSize, &fd));
    EXPECT_TRUE(read_file(nv) == std::string(kSize, '\xFF'));
    struct stat status = {};
    stat(nv.c_str(), &status);
    EXPECT_EQ(status.st_mode & 07777, 0660u);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_THAT(said(),
                ElementsAre("getNvFd: ERR! no NV(" + nv + ") file",
                            "create_empty_nv: create NV(" + nv + ")",
                            "create_empty_nv: NV(" + nv + ") saved 196609 bytes",
                            "getNvFd: NV(" + nv + ") opened (fd " + std::to_string(fd) + ")"));
    EXPECT_EQ(list(kScratch), Lines{"nv"});
    close(fd);

    fs::remove(nv);
    largest_block = 64 * 1024;
    constexpr int kLarge = 64 * 1024 * 1024 + 1;  // more than a call writes
    EXPECT_EQ(Util::create_empty_nv(nv.c_str(), kLarge), 0);
    largest_block = SIZE_MAX;
    EXPECT_EQ(fs::file_size(nv), kLarge);

    fs::remove(nv);
    EXPECT_EQ(Util::create_empty_nv(nv.c_str(), 0), -14);
    EXPECT_EQ(last_said(), "create_empty_nv: ERR! wrong size(0)");
    EXPECT_EQ(Util::create_empty_nv(nv.c_str(), kSize), -14);
    EXPECT_EQ(last_said(), "! create_empty_nv: ERR! NV(" + nv + ") link fail");
    EXPECT_EQ(read_file(nv), "");
    fs::remove(nv);
    {
        const FullDisk disk(kSize - 1);
        EXPECT_EQ(Util::create_empty_nv(nv.c_str(), kSize), -14);
    }
    EXPECT_EQ(last_said(), "! create_empty_nv: NV(" + nv + ") write fail");
    EXPECT_EQ(read_file(nv).size(), size_t{kSize} - 1);
}

TEST_F(Device, OpensAnNvFileOrReportsWhyNot) {
    write_file(path("there"), "short");
    fs::create_symlink(path("loop"), path("loop"));
    const auto kNormal = CP_BOOT_MODE_NORMAL;
    const struct {
        std::string path;
        cp_boot_mode mode;
        int size;
        bool result;
        int fd;       // -2: nothing stored; 0: an open one
        Lines lines;  // "@" is the path; none: not checked
    } cases[] = {
            {path("there"), kNormal, 99, true, 0, {}},
            {path("there"), CP_BOOT_MODE_DUMP, 99, true, -1, {}},
            {path("missing"), CP_BOOT_MODE_DUMP, 99, true, -1, {}},
            {"", kNormal, 99, true, -1, {}},
            {path("loop"), kNormal, 99, false, -2, {"! getNvFd: ERR! NV(@) open fail"}},
            {"/none/nv",
             kNormal,
             99,
             false,
             -2,
             {"getNvFd: ERR! no NV(@) file", "create_empty_nv: create NV(@)",
              "! create_empty_nv: ERR! NV(@) open fail",
              "getNvFd: ERR! create_empty_nv(@, 99) fail"}},
            {path("missing"),
             kNormal,
             -1,
             false,
             -2,
             {"getNvFd: ERR! no NV(@) file", "create_empty_nv: create NV(@)",
              "create_empty_nv: ERR! malloc(-1) fail",
              "getNvFd: ERR! create_empty_nv(@, -1) fail"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        int fd = -2;
        EXPECT_EQ(Util::getNvFd(c.mode, c.path.c_str(), c.size, &fd), c.result);
        EXPECT_EQ(std::min(fd, 0), c.fd);
        if (fd >= 0) close(fd);
        Lines lines = said();
        for (std::string& line : lines) {
            const size_t at = line.find(c.path);
            if (at != std::string::npos) line.replace(at, c.path.size(), "@");
        }
        EXPECT_EQ(c.lines.empty() ? Lines{} : lines, c.lines);
    }
    EXPECT_EQ(read_file(path("there")), "short");
}

TEST_F(Device, ReadsTheSimCountAfterTheFirstEqualsSign) {
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
    fs::create_directory("/efs/factory.prop");
    EXPECT_EQ(protocol_.get_factory_prop(), -1);
    EXPECT_EQ(last_said(), "! get_factory_prop: /efs/factory.prop read fail");
}

TEST_F(Device, RequiresARebootForTwoCarriers) {
    for (const std::string code : {"TMB", "VZW", "", "TMBX", "VZWX", "tmb", "vzw", "TM", "XTMB"}) {
        set_property("ro.vtc.sales_code", code);
        EXPECT_EQ(protocol_.check_vtc_sales_code(), code == "TMB" || code == "VZW") << code;
        EXPECT_THAT(said(), ElementsAre("check_vtc_sales_code: sales_code:" + code));
    }
}

TEST_F(Device, RequestsNoRebootWithACutReason) {
    const std::string longest(84, 'r');
    for (const std::string& reason : {std::string("secure"), longest}) {
        EXPECT_EQ(protocol_.std_reboot_system(reason.c_str()), 0);
        EXPECT_EQ(property("sys.powerctl"), "reboot," + reason);
    }
    EXPECT_THAT(said(), IsEmpty());
    EXPECT_LT(protocol_.std_reboot_system((longest + "s").c_str()), 0);
    EXPECT_EQ(property("sys.powerctl"), "reboot," + longest);
    EXPECT_EQ(last_said(),
              "std_reboot_system: ERR! failed to setprop [sys.powerctl](reboot," + longest + ")");
}

TEST_F(Device, ConvertsOnlyLowerCaseLettersToUpperCase) {
    char text[] = "............";
    Util::toUpperCase("`azm{@AZ[09_", text);
    EXPECT_STREQ(text, "`AZM{@AZ[09_");
}

}  // namespace
}  // namespace rvd::test

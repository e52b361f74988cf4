// The controllers' requests to the driver, and the region files that they write.
#include "bootdump/BootDumpExt.h"
#include "bootdump/BootDumpModap.h"
#include "srinfo/Srinfo.h"
#include "tests/support/phone.h"
#include "util/Util.h"

namespace rvd::test {
namespace {

static_assert(kImageChunk == 63488);

class Controller : public Phone {
  protected:
    static BootDump& modem() { return *Container::getBootDump(); }
    static BootDumpModap& integrated() { return static_cast<BootDumpModap&>(modem()); }

    // Plans a stage of `size` bytes at offset 3 of a file that has only `available` bytes there.
    void plan_stage(unsigned stage, uint32_t size, size_t available) {
        write_file(path("image"), "..." + pattern(available));
        const int fd = open(path("image").c_str(), O_RDONLY | O_CLOEXEC);
        boot().fd[BOOT_FD_PARTITION] = fd;
        boot().dload[stage] = {stage, 0, 0, 0, 0, fd, 3, 0x1000, size, 0, 0};
    }

    void expect_chunk(const std::string& bytes, uint32_t size, uint32_t m_offset, int result = 0) {
        driver().expect<cp_image>(IOCTL_LOAD_CP_IMAGE, [=](const cp_image& image) {
            const cp_image wanted = {
                    image.image_addr, size, m_offset, 3, 1, static_cast<uint32_t>(bytes.size())};
            EXPECT_EQ(memcmp(&image, &wanted, sizeof(image)), 0);
            EXPECT_TRUE(std::string(reinterpret_cast<const char*>(image.image_addr), image.len) ==
                        bytes);
            return result;
        });
    }

    // Copies a region of `size` bytes, which the dump node delivers as the script says.
    int copy_region(const std::string& name, uint32_t size, const std::string& script) {
        driver().expect<cp_log_dump>(IOCTL_GET_LOG_DUMP, [&](cp_log_dump& region) {
            EXPECT_EQ(std::string(region.name, 32),
                      (name + std::string(32, '\0')).substr(0, 31) + '\0');
            EXPECT_EQ(region.idx, 5u);
            region.size = size;
            return 0;
        });
        return with_modem(dump().fd[DUMP_FD_NODE], script,
                          [&] { return modem().get_log_dump(name.c_str(), CP_LOG_DUMP_L2B); });
    }
};

TEST_F(Controller, StartsWithClosedRecordsAndClosesThemAfterUse) {
    for (const char* type : {"tq720", "vk880"}) {
        use_modem(type);
        const auto is_closed = [](auto& record) {
            EXPECT_THAT(record.fd, Each(-1));
            const char* bytes = reinterpret_cast<const char*>(&record) + sizeof(record.fd);
            return std::string(bytes, sizeof(record) - sizeof(record.fd)) ==
                   std::string(sizeof(record) - sizeof(record.fd), '\0');
        };
        EXPECT_TRUE(is_closed(boot()) && is_closed(dump())) << type;
        for (int32_t* slots : {boot().fd, dump().fd}) {
            for (unsigned i = 0; i < kFdSlots; ++i)
                slots[i] = dup(STDIN_FILENO);
        }
        boot().max_stage = 7;
        boot().dload[12].size = 7;
        dump().reason[511] = 'x';
        for (int twice = 0; twice < 2; ++twice) {
            modem().std_boot_close_args();
            modem().std_dump_close_args();
            EXPECT_TRUE(is_closed(boot()) && is_closed(dump())) << type;
        }
    }
}

TEST_F(Controller, LoadsAnImageInChunksOfWhichTheLastIsPartial) {
    for (const uint32_t size : {0u, 3u, kImageChunk - 1, kImageChunk, kImageChunk + 1}) {
        SCOPED_TRACE(size);
        plan_stage(2, size, size + 1);
        for (uint32_t sent = 0; sent <= size; sent += kImageChunk)
            expect_chunk(pattern(size).substr(sent, kImageChunk), size, 0x1000 + sent);
        EXPECT_EQ(integrated().load_cp_image_by_stage(2, CP_BOOT_MODE_DUMP), 0);
        EXPECT_EQ(last_said(), "load_cp_image_by_stage: 2 stage complelte");
        driver().verify();
        modem().std_boot_close_args();
    }
}

TEST_F(Controller, ReportsAnImageThatCannotBeLoaded) {
    const std::string tag = "load_cp_image_by_stage: ERR! ";
    plan_stage(2, kImageChunk + 9, kImageChunk + 8);
    expect_chunk(pattern(kImageChunk), kImageChunk + 9, 0x1000);
    EXPECT_EQ(integrated().load_cp_image_by_stage(2, CP_BOOT_MODE_DUMP), -14);
    EXPECT_EQ(last_said(), tag + "read 8 != img.len 9");
    for (const char* result : {"-7", "7"}) {
        boot().dload[2].size = 8;
        expect_chunk(pattern(8), 8, 0x1000, atoi(result));
        EXPECT_LT(integrated().load_cp_image_by_stage(2, CP_BOOT_MODE_DUMP), 0);
        EXPECT_EQ(last_said(), "! " + tag + "IOCTL_LOAD_CP_IMAGE fail (2," + result + ")");
    }
    boot().dload[2].fd = -1;
    EXPECT_EQ(integrated().load_cp_image_by_stage(2, CP_BOOT_MODE_DUMP), -1);
    EXPECT_EQ(last_said(), "! " + tag + "lseek fail at stage 2");
}

TEST_F(Controller, ReportsAFailedAllocationInEachStep) {
    const struct {
        const char* type;
        std::function<int()> step;
        int result;
        const char* line;
    } cases[] = {
            {"tq720", [] { return integrated().load_cp_image_by_stage(2, CP_BOOT_MODE_NORMAL); },
             -12, "load_cp_image_by_stage: ERR! malloc(4096) fail"},
            {"vk880",
             [] { return static_cast<BootDumpExt&>(modem()).std_boot_load_cp_bootloader(2); }, -12,
             "std_boot_load_cp_bootloader: ERR! malloc(4096) fail"},
            {"tq720", [] { return Util::create_empty_nv(path("nv").c_str(), 4096); }, -12,
             "create_empty_nv: ERR! malloc(4096) fail"},
            {"tq720", [] { return Log::dmesg_to_file(path("ring").c_str()); }, -1,
             "dmesg_to_file: ERR! malloc(524289) fail"},
            {"tq720", [] { return Container::getSrinfo()->store_srinfo(3), 0; }, 0,
             "alloc_srinfo: read buf alloc(4096) fail"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        use_modem(c.type);
        plan_stage(2, 4096, 4096);
        largest_block = 1024;
        const int result = c.step();
        largest_block = SIZE_MAX;
        EXPECT_EQ(result, c.result);
        EXPECT_THAT(said(), Contains(c.line));
        modem().std_boot_close_args();
    }
}

TEST_F(Controller, SkipsAStageWhenThePropertyBeginsWithOne) {
    for (const unsigned value : {0x30u, 0x31u, 0xFFu}) {
        boot().max_stage = 0;
        boot().dload[0].skip_if_sent = 1;
        set_property("vendor.rvd.first_xmit_done", std::string(1, static_cast<char>(value)));
        if (value != '1') plan_stage(0, 0, 0), expect_chunk("", 0, 0x1000);
        EXPECT_EQ(integrated().load_cp_images(CP_BOOT_MODE_DUMP), static_cast<int>(value) - '0');
        modem().std_boot_close_args();
    }
}

TEST_F(Controller, RebootsForAnInvalidImageOnTheDevicesOfTwoCarriers) {
    const int invalid[] = {0x00FEED02, 0x00FEED04, static_cast<int>(0xFEED0002), 0x00050E00};
    for (const uint32_t mode : {0u, 1u, 2u, 7u, 12u}) {
        for (const int code :
             {invalid[0], invalid[1], invalid[2], invalid[3], 0, 5, -5, 0xFEED03}) {
            for (const char* carrier : {"TMB", "OTH"}) {
                SCOPED_TRACE(testing::Message() << mode << " " << code << " " << carrier);
                set_property("ro.vtc.sales_code", carrier);
                set_property("sys.powerctl", "");
                driver().expect<cp_security_req>(IOCTL_CHECK_SECURITY, [&](const auto& request) {
                    const cp_security_req wanted = {mode, 0x11, 0x22, 0};
                    EXPECT_EQ(memcmp(&request, &wanted, sizeof(request)), 0);
                    return code;
                });
                const bool reboots =
                        *carrier == 'T' && std::count(invalid, std::end(invalid), code) > 0;
                const bool kept = code == 0 || reboots || mode == 2;
                EXPECT_EQ(integrated().std_security_req(mode, 0x11, 0x22), kept ? code : -1);
                EXPECT_EQ(property("sys.powerctl"), reboots ? "reboot,secure" : "");
            }
        }
    }
}

TEST_F(Controller, CopiesARegionUpToItsAnnouncedSize) {
    const struct {
        uint32_t size;  // announced
        const char* script;
        int result;
        size_t saved;
        const char* line;  // end of the last line
    } cases[] = {
            {0, "", 0, 0, "Complete! (0 bytes)"},
            {2048 + 904, "<T:0 <R:2047 <R:904", 904, 2952, "Complete! (2952 bytes)"},
            {4097, "<R:4096 <R:1", 1, 4097, "Complete! (4097 bytes)"},
            {9, "<R:8", -5, 8, "ERR! log_dump std_ul_rx_frame fail (ret -5)"},
            {9, "<R:8 <0", -5, 8, "ERR! log_dump std_ul_rx_frame fail (ret -5)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.script);
        EXPECT_EQ(copy_region(std::string(40, 'n'), c.size, c.script), c.result);
        EXPECT_THAT(last_said(), EndsWith(c.line));
        const Lines files = list(kLogDir);
        ASSERT_EQ(files.size(), 1u);
        EXPECT_THAT(files[0], MatchesRegex("cpcrash_n+_dump_umts_[0-9]{8}-[0-9]{4}.log"));
        EXPECT_EQ(read_file(std::string(kLogDir) + "/" + files[0]).size(), c.saved);
        fs::remove(std::string(kLogDir) + "/" + files[0]);
    }
    driver().expect(IOCTL_GET_LOG_DUMP, -1);
    EXPECT_EQ(modem().get_log_dump("shmem", CP_LOG_DUMP_SHMEM), -22);
    EXPECT_THAT(list(kLogDir), IsEmpty());
}

}  // namespace
}  // namespace rvd::test

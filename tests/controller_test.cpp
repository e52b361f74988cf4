// The controllers' own requests to the driver, and the copies they make of modem memory.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "bootdump/BootDumpModap.h"
#include "tests/support/phone.h"

namespace rvd::test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t kChunk = 63488;

class Controller : public Phone {
  protected:
    BootDump& modem() { return *Container::getBootDump(); }
    BootDumpModap& integrated() { return static_cast<BootDumpModap&>(modem()); }

    // A stage of the plan that is read from a file of `held` bytes, at offset 3.
    void plan_stage(unsigned stage, uint32_t size, size_t held) {
        write_file(path("image"), "..." + pattern(held));
        boot().fd[BOOT_FD_PARTITION] = open(path("image").c_str(), O_RDONLY | O_CLOEXEC);
        boot().dload[stage] = {stage, 0,      0,    0, 0, boot().fd[BOOT_FD_PARTITION],
                               3,     0x1000, size, 0, 0};
    }

    void expect_chunk(const std::string& bytes, uint32_t size, uint32_t m_offset, int result = 0) {
        driver().expect<cp_image>(IOCTL_LOAD_CP_IMAGE, [=](const cp_image& image) {
            EXPECT_EQ((std::vector<uint32_t>{image.size, image.m_offset, image.b_offset, image.mode,
                                             image.len}),
                      (std::vector<uint32_t>{size, m_offset, 3, 1,
                                             static_cast<uint32_t>(bytes.size())}));
            EXPECT_TRUE(std::string(reinterpret_cast<const char*>(image.image_addr), image.len) ==
                        bytes);
            return result;
        });
    }
};

TEST_F(Controller, RecordsAreClosedFromTheBeginningAndAfterEveryUse) {
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

TEST_F(Controller, RequestsReportTheirFailureAndEveryCompletionIsNotified) {
    const auto power_on = [&] { return modem().std_boot_power_on(); };
    const auto reset = [&] { return modem().std_boot_power_reset(CP_BOOT_MODE_DUMP); };
    const auto start = [&] { return modem().std_boot_start_cp_bootloader(CP_BOOT_MODE_DUMP); };
    const auto complete = [&] { return modem().std_boot_complete_normal_bootup(); };
    const struct {
        unsigned request;
        std::function<int()> operation;
        const char* line;
    } cases[] = {
            {IOCTL_POWER_ON, power_on, "! std_boot_power_on: ERR! IOCTL_POWER_ON fail (-7)"},
            {IOCTL_POWER_RESET, reset, "! std_boot_power_reset: ERR! IOCTL_POWER_RESET fail"},
            {IOCTL_START_CP_BOOTLOADER, start,
             "! std_boot_start_cp_bootloader: ERR! IOCTL_START_CP_BOOTLOADER fail"},
            {IOCTL_COMPLETE_NORMAL_BOOTUP, complete,
             "! std_boot_complete_normal_bootup: ERR! IOCTL_COMPLETE_NORMAL_BOOTUP fail (-7)"},
    };
    for (const auto& c : cases) {
        for (const int result : {0, 7, -7}) {
            if (_IOC_SIZE(c.request) == 0) {
                driver().expect(c.request, result);
            } else {
                driver().expect<uint32_t>(c.request, [=](const uint32_t& mode) {
                    EXPECT_EQ(mode, 1u);
                    return result;
                });
            }
            if (c.request == IOCTL_COMPLETE_NORMAL_BOOTUP) {
                driver().expect(result < 0 ? IOCTL_NOTIFY_BOOT_FAIL : IOCTL_NOTIFY_BOOT_DONE, -1);
            }
            EXPECT_EQ(c.operation(), std::min(result, 0));
            EXPECT_EQ(said(), result < 0 ? Lines{c.line} : Lines{});
        }
    }
}

TEST_F(Controller, AnImageGoesToTheDriverInChunksThatEndWithAPartialOne) {
    for (const uint32_t size : {0u, 3u, 100u, kChunk - 1, kChunk, kChunk + 1, 2 * kChunk}) {
        SCOPED_TRACE(size);
        plan_stage(2, size, size + 1);
        const std::string image = pattern(size);
        for (uint32_t sent = 0; sent <= size; sent += kChunk)
            expect_chunk(image.substr(sent, kChunk), size, 0x1000 + sent);
        EXPECT_EQ(integrated().load_cp_image_by_stage(2, CP_BOOT_MODE_DUMP), 0);
        EXPECT_EQ(last_said(), "load_cp_image_by_stage: 2 stage complelte");
        driver().verify();
        modem().std_boot_close_args();
    }
}

TEST_F(Controller, AnImageThatCannotBeLoadedFailsItsStage) {
    plan_stage(2, kChunk + 9, kChunk + 8);
    expect_chunk(pattern(kChunk), kChunk + 9, 0x1000);
    EXPECT_EQ(integrated().load_cp_image_by_stage(2, CP_BOOT_MODE_DUMP), -14);
    EXPECT_EQ(last_said(), "load_cp_image_by_stage: ERR! read 8 != img.len 9");
    for (const int refusal : {-7, 7}) {
        boot().dload[2].size = 8;
        expect_chunk(pattern(8), 8, 0x1000, refusal);
        EXPECT_LT(integrated().load_cp_image_by_stage(2, CP_BOOT_MODE_DUMP), 0);
        EXPECT_EQ(last_said(), "! load_cp_image_by_stage: ERR! IOCTL_LOAD_CP_IMAGE fail (2," +
                                       std::to_string(refusal) + ")");
    }
    boot().dload[2].fd = -1;
    EXPECT_EQ(integrated().load_cp_image_by_stage(2, CP_BOOT_MODE_DUMP), -1);
    EXPECT_EQ(last_said(), "! load_cp_image_by_stage: ERR! lseek fail at stage 2");
}

TEST_F(Controller, ASentVssImageIsNotLoadedAgain) {
    plan_stage(0, 1, 9);
    boot().dload[0].skip_if_sent = 1;
    expect_chunk(pattern(1), 1, 0x1000, -1);
    EXPECT_EQ(integrated().load_cp_images(CP_BOOT_MODE_DUMP), -1);
    EXPECT_EQ(property("vendor.rvd.first_xmit_done"), "");
    expect_chunk(pattern(1), 1, 0x1000);
    EXPECT_EQ(integrated().load_cp_images(CP_BOOT_MODE_DUMP), 0);
    EXPECT_EQ(property("vendor.rvd.first_xmit_done"), "1");
    EXPECT_EQ(integrated().load_cp_images(CP_BOOT_MODE_DUMP), 1);
    EXPECT_EQ(last_said(), "load_cp_images: stage[0] : stage is already xmit once");
}

TEST_F(Controller, AnImageOfAnotherDeviceRebootsTheDevicesOfTwoCarriers) {
    constexpr int kCodes[] = {0x00FEED02, 0x00FEED04, static_cast<int>(0xFEED0002), 0x00050E00};
    for (const unsigned mode : {0u, 1u, 2u, 7u, 12u}) {
        for (const int code : {kCodes[0], kCodes[1], kCodes[2], kCodes[3], 0, 5, -5, 0x00FEED03}) {
            for (const bool carrier : {false, true}) {
                SCOPED_TRACE(testing::Message()
                             << "mode " << mode << " code " << code << " carrier " << carrier);
                set_property("ro.vtc.sales_code", carrier ? "TMB" : "XXX");
                set_property("sys.powerctl", "");
                driver().expect<cp_security_req>(IOCTL_CHECK_SECURITY,
                                                 [=](const cp_security_req& request) {
                                                     EXPECT_EQ(request.mode, mode);
                                                     EXPECT_EQ(request.param1, 0x11u);
                                                     EXPECT_EQ(request.param2, 0x22u);
                                                     EXPECT_EQ(request.param3, 0u);
                                                     return code;
                                                 });
                const bool reboots = carrier && std::count(kCodes, std::end(kCodes), code) > 0;
                const bool kept = code == 0 || reboots || mode == 2;
                EXPECT_EQ(integrated().std_security_req(mode, 0x11, 0x22), kept ? code : -1);
                EXPECT_EQ(property("sys.powerctl"), reboots ? "reboot,secure" : "");
            }
        }
    }
}

TEST_F(Controller, ARegionIsCopiedAsItComesAndEndsAtItsSize) {
    const std::string name(40, 'n');
    const struct {
        uint32_t size;  // as the driver says
        const char* script;
        int result;
        size_t saved;
        const char* line;  // how the last one ends
    } cases[] = {
            {0, "", 0, 0, "Complete! (0 bytes)"},
            {2048 + 904, "<T:0 <R:2047 <R:904", 904, 2952, "Complete! (2952 bytes)"},
            {4097, "<R:4096 <R:1", 1, 4097, "Complete! (4097 bytes)"},
            {9, "<R:8", -5, 8, "ERR! log_dump std_ul_rx_frame fail (ret -5)"},
            {9, "<R:8 <0", -5, 8, "ERR! log_dump std_ul_rx_frame fail (ret -5)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.script);
        const Modem far_end(&dump().fd[DUMP_FD_NODE], c.script);
        driver().expect<cp_log_dump>(IOCTL_GET_LOG_DUMP, [&](cp_log_dump& region) {
            EXPECT_EQ(std::string(region.name, 32), std::string(31, 'n') + '\0');
            EXPECT_EQ(region.idx, 5u);
            region.size = c.size;
            return 0;
        });
        EXPECT_EQ(modem().get_log_dump(name.c_str(), CP_LOG_DUMP_L2B), c.result);
        EXPECT_THAT(last_said(), testing::EndsWith(c.line));
        const Lines files = list(kLogDir);
        ASSERT_EQ(files.size(), 1u);
        EXPECT_THAT(files[0], testing::MatchesRegex("cpcrash_n+_dump_umts_[0-9]{8}-[0-9]{4}.log"));
        EXPECT_EQ(read_file(std::string(kLogDir) + "/" + files[0]).size(), c.saved);
        std::filesystem::remove(std::string(kLogDir) + "/" + files[0]);
    }
    const Modem far_end(&dump().fd[DUMP_FD_NODE], "");
    driver().expect(IOCTL_GET_LOG_DUMP, -1);
    EXPECT_EQ(modem().get_log_dump("shmem", CP_LOG_DUMP_SHMEM), -22);
    EXPECT_THAT(list(kLogDir), IsEmpty());
}

TEST_F(Controller, ADumpIsPreparedAndEndsInThePanicWithItsReason) {
    write_file("/dev/umts_ramdump0", "");
    driver().expect<char[24]>(IOCTL_GET_LNKM_VERSION, [](char(&version)[24]) {
        memset(version, 'v', 20);  // unterminated
        return 0;
    });
    ASSERT_TRUE(modem().std_dump_prepare_args());
    EXPECT_STREQ(dump().reason, "UMTS: ");
    const std::string stamp = "_[0-9]{8}-[0-9]{4}.log";
    EXPECT_THAT(list(kLogDir), ElementsAre(testing::MatchesRegex("cpcrash_umts_dump" + stamp),
                                           testing::MatchesRegex("cpcrash_umts_info_tq720" + stamp),
                                           testing::MatchesRegex("cpcrash_umts_log" + stamp)));
    EXPECT_THAT(
            read_file(std::string(kLogDir) + "/" + list(kLogDir)[2]),
            testing::StartsWith("std_dump_write_versions: LNKM version: " + std::string(20, 'v') +
                                "\nstd_dump_write_versions: Radio Vault Daemon (RVD) version: "
                                "RVD-V3-20200928R1\n"));

    strcpy(Container::getRvdArgs()->crash_reason, "why");
    for (const int result : {0, -7}) {
        driver().expect<char>(IOCTL_TRIGGER_KERNEL_PANIC, [=](const char& reason) {
            EXPECT_STREQ(&reason, "why");
            return result;
        });
        EXPECT_EQ(modem().std_dump_trigger_kernel_panic(), result);
        EXPECT_EQ(dump().fd[DUMP_FD_DUMP], -1);
        EXPECT_EQ(dump().fd[DUMP_FD_INFO], -1);
        EXPECT_GE(dump().fd[DUMP_FD_LOG], 0);
    }
    close(dump().fd[DUMP_FD_LOG]);
    dump().fd[DUMP_FD_LOG] = -1;
    EXPECT_EQ(modem().std_dump_trigger_kernel_panic(), -1);
    EXPECT_EQ(last_said(), "! std_dump_trigger_kernel_panic: ERR! fsync(log_fd) fail");
}

}  // namespace
}  // namespace rvd::test

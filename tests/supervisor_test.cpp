// Parts of start-up, passes and the wait for events that a scenario cannot reach.
#include "main/Supervisor.h"

#include <poll.h>

#include "tests/support/phone.h"

namespace rvd::test {
namespace {

class Supervisor : public Phone {
  protected:
    void SetUp() override {
        Phone::SetUp();
        write_file("/dev/umts_boot0", "");
        write_file("/dev/nr_boot0", "");
        memset(Container::getRvdArgs()->crash_reason, 'x', kCrashReasonSize);
    }

    // Expects a kernel panic next, with this reason and zeros after it.
    void expect_panic(const std::string& reason) {
        driver().expect<char[kCrashReasonSize]>(IOCTL_TRIGGER_KERNEL_PANIC, [=](const auto& text) {
            EXPECT_TRUE(std::string(text, sizeof(text)) ==
                        reason + std::string(sizeof(text) - reason.size(), '\0'));
            return 0;
        });
    }
};

TEST_F(Supervisor, ClearsTheRestOfALongerCrashReason) {
    expect_panic("Force a kernel panic");
    EXPECT_EQ(Container::getBootDump()->set_kernel_panic("Force a kernel panic"), 0);

    // The modem crashes in its boot, and there is no free space for a dump.
    Container::getRvdArgs()->boot_link = LINK_NONE;
    kernel().free_blocks = 0;
    driver().expect(IOCTL_GET_CP_STATUS, MODEM_STATE_CRASH);
    expect_panic("Not enough freespace");
    EXPECT_FALSE(run_pass().has_value());
}

TEST_F(Supervisor, ChecksNvValidationAfterTheLastPauseForTheExternalModemOnly) {
    for (const char* type : {"tq720", "vk880"}) {
        use_modem(type);
        set_property("vendor.rvd.rfs_check_done", "0");
        kernel().sleeps.clear();
        kernel().on_sleep = [] {
            if (kernel().sleeps.size() == 50) set_property("vendor.rvd.rfs_check_done", "1");
        };
        EXPECT_EQ(Container::getBootDump()->boot(), -14);  // there is no partition
        kernel().on_sleep = nullptr;
        EXPECT_EQ(kernel().sleeps, std::vector<unsigned>(50, 100));
        EXPECT_THAT(said(), Contains(std::string("boot: NV validation ") +
                                     (type[0] == 't' ? "TIMEOUT" : "done")));
    }
}

TEST_F(Supervisor, ReportsAPollWithoutPollhupOnce) {
    kernel().poll_results = {POLLERR, POLLERR, POLLERR | POLLNVAL, POLLHUP, POLLERR | POLLHUP};
    driver().expect(IOCTL_GET_CP_STATUS, 3);
    driver().expect(IOCTL_GET_CP_STATUS, MODEM_STATE_CRASH);
    debug_level = 0;
    watch_modem();
    const Lines lines = said();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "status_loop: ERR! poll without POLLHUP (revents 0x8)"),
              1);
    EXPECT_EQ(kernel().sleeps, (std::vector<unsigned>{1000, 1000, 1000, 1000, 3000}));
}

TEST_F(Supervisor, ExitsWhenItsObjectsCannotBeAllocated) {
    char program[] = "rvd";
    char* words[] = {program, nullptr};
    const int kernel_log = kmsg_fd;
    largest_block = 0;
    const std::optional<int> status = start_up(1, words);
    largest_block = SIZE_MAX;
    kmsg_fd = kernel_log;
    EXPECT_EQ(status, -22);
}

}  // namespace
}  // namespace rvd::test

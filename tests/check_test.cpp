// Lines of rvd-check that a scenario cannot make say NO: SELinux labels (extended attributes here),
// other processes (a directory mounted over /proc), and the records of the driver.
#include <poll.h>
#include <sys/mount.h>
#include <sys/xattr.h>

#include "check/contract.h"
#include "check/phone.h"
#include "tests/support/phone.h"

namespace rvd::test {
namespace {

using Check = Phone;

// The lines that a check prints.
template <class Function>
Lines printed(const Function& check) {
    testing::internal::CaptureStdout();
    rvd::check::Report report(false);
    check(report);
    std::istringstream text(testing::internal::GetCapturedStdout());
    Lines lines;
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    return lines;
}

// Looks like a kernel with SELinux and a single process.
class SelinuxKernel {
  public:
    SelinuxKernel(int number, const std::string& process, const std::string& domain) {
        fs::create_directories("/sys/fs/selinux");
        write_file("/sys/fs/selinux/enforce", "1");
        EXPECT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0);
        const std::string directory = "/proc/" + std::to_string(number);
        fs::create_directories(directory + "/attr");
        write_file(directory + "/comm", process + "\n");
        write_file(directory + "/attr/current", domain);
    }
    ~SelinuxKernel() {
        umount("/proc");
        fs::remove_all("/sys/fs");
    }
};

void set_label(const std::string& path, const std::string& type) {
    const std::string label = "u:object_r:" + type + ":s0";
    EXPECT_EQ(setxattr(path.c_str(), "security.selinux", label.data(), label.size(), 0), 0) << path;
}

TEST_F(Check, ReportsEachFileWithAWrongLabel) {
    use_modem("tq720");
    RvdArgs& args = *Container::getRvdArgs();
    strcpy(args.partition_path, path("partition").c_str());
    strcpy(args.nv_data_path, path("nv").c_str());
    const std::pair<std::string, std::string> files[] = {
            {"/vendor/bin/rvd", "rvd_exec"},
            {args.boot_node, "modem_boot_device"},
            {args.dump_node, "modem_dump_device"},
            {args.partition_path, "modem_firmware_block_device"},
            {args.nv_data_path, "modem_nv_file"},
            {kLogDir, "rvd_log_data_file"},
    };
    fs::create_directories("/vendor/bin");
    fs::create_directories(kLogDir);
    for (const auto& [file, type] : files) {
        if (file != kLogDir) write_file(file, "");
        set_label(file, type);
    }
    const SelinuxKernel kernel(1, "init", "u:r:init:s0");
    EXPECT_THAT(printed(check::check_labels), Each(StartsWith("OK  ")));
    for (const auto& [file, type] : files) {
        set_label(file, "device");
        const Lines lines = printed(check::check_labels);
        EXPECT_EQ(lines.size(), 1 + std::size(files));
        EXPECT_THAT(lines, Contains("NO  label of " + file +
                                    ": \"u:object_r:device:s0\" instead of u:object_r:" + type +
                                    ":s0; fix file_contexts, then restorecon -v " + file));
        set_label(file, type);
    }
    fs::remove_all("/vendor");
}

TEST_F(Check, ReportsARunningDaemonInAnotherDomain) {
    use_modem("tq720");
    const struct {
        int number;
        const char *process, *domain, *line;
    } cases[] = {
            {42, "rvd", "u:r:rvd:s0", "OK  domain of the running daemon: u:r:rvd:s0"},
            {42, "rvd", "u:r:init:s0",
             "NO  domain of the running daemon: \"u:r:init:s0\" instead of u:r:rvd:s0; check the "
             "label of its file"},
            {42, "init", "u:r:init:s0", nullptr},
            {getpid(), "rvd", "u:r:su:s0", nullptr},
    };
    for (const auto& c : cases) {
        const SelinuxKernel kernel(c.number, c.process, c.domain);
        const Lines lines = printed(check::check_labels);
        if (c.line != nullptr)
            EXPECT_EQ(lines.back(), c.line);
        else
            EXPECT_THAT(lines, Each(testing::Not(HasSubstr("domain"))));
    }
}

TEST_F(Check, NamesWhatIsWrongWithAnAnswerOfTheDriver) {
    constexpr uint32_t kMost = kSrinfoDataSize;
    srinfo_buf records[] = {{0, {}}, {kMost, {}}, {kMost + 1, {}}};
    cp_crash_reason reasons[2] = {};
    memset(reasons[0].text, 'r', sizeof(reasons[0].text) - 1);
    memset(reasons[1].text, 'r', sizeof(reasons[1].text));
    char versions[][2] = {"4", ""};
    const struct {
        unsigned number;
        int result;
        void* argument;
        const char* wrong;
    } cases[] = {
            {IOCTL_GET_SRINFO, 0, &records[0], ""},
            {IOCTL_GET_SRINFO, 0, &records[1], ""},
            {IOCTL_GET_SRINFO, 0, &records[2], "4093 bytes in a record that holds 4092"},
            {IOCTL_GET_SRINFO, -1, &records[2], "Permission denied"},
            {IOCTL_GET_CP_CRASH_REASON, 0, &reasons[0], ""},
            {IOCTL_GET_CP_CRASH_REASON, 0, &reasons[1], "the text is not terminated"},
            {IOCTL_GET_LNKM_VERSION, 0, versions[0], ""},
            {IOCTL_GET_LNKM_VERSION, 0, versions[1], "the version is empty"},
            {IOCTL_POWER_ON, 1, nullptr, ""},
            {IOCTL_POWER_OFF, 1, nullptr, "only 0 is success"},
            {IOCTL_LOAD_CP_IMAGE, 1, nullptr, "only 0 is success"},
    };
    for (const auto& c : cases) {
        errno = EACCES;
        const check::Request* request = check::find_request(c.number);
        ASSERT_NE(request, nullptr);
        EXPECT_EQ(check::wrong_answer(*request, c.result, c.argument), c.wrong) << request->name;
    }
    EXPECT_EQ(check::find_request(IOCTL_TRIGGER_KERNEL_PANIC), nullptr);
}

TEST_F(Check, NamesWhatIsWrongWithTheEventsOfANodeBeforeARequest) {
    const std::string hangs = "hangs up before ", more = "has more to read than the region's size";
    const struct {
        short revents;
        unsigned number;
        std::string wrong;
    } cases[] = {
            {0, IOCTL_GET_LOG_DUMP, ""},
            {POLLIN, IOCTL_GET_LOG_DUMP, more},
            {POLLIN, IOCTL_POWER_RESET, ""},
            {POLLHUP, IOCTL_POWER_RESET, hangs + "POWER_RESET, which ends a boot or a dump"},
            {POLLIN | POLLHUP, IOCTL_GET_LOG_DUMP,
             hangs + "GET_LOG_DUMP, which ends a boot or a dump"},
            {POLLIN | POLLHUP, IOCTL_GET_CP_STATUS, ""},
            {POLLHUP, IOCTL_POWER_OFF, ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(check::wrong_events(c.revents, *check::find_request(c.number)), c.wrong);
}

TEST_F(Check, TakesAHangUpWithANewStateForAnEvent) {
    EXPECT_TRUE(check::is_event(POLLHUP, 4, 2));
    EXPECT_TRUE(check::is_event(POLLHUP | POLLIN, 4, 2));
    EXPECT_FALSE(check::is_event(POLLHUP, 4, 4));
    EXPECT_FALSE(check::is_event(POLLERR, 4, 2));
}

TEST_F(Check, StartsTheDriverTestOnlyAfterAYes) {
    const std::pair<const char*, bool> answers[] = {
            {"y\n", true}, {"yes\n", true}, {"n\n", false}, {"\n", false}, {"Y\n", false}};
    for (const auto& [answer, yes] : answers) {
        std::string text = answer;
        FILE* const stream = fmemopen(text.data(), text.size(), "r");
        testing::internal::CaptureStderr();
        EXPECT_EQ(check::agreed("It boots.\n", stream), yes) << answer;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "It boots.\nGo on? [y/N] ");
        fclose(stream);
    }
}

}  // namespace
}  // namespace rvd::test

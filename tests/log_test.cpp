// Log messages and their sinks.
#include <sys/socket.h>

#include <thread>

#include "tests/support/phone.h"

namespace rvd::test {
namespace {

static_assert(Log::kMaxRecord == 976);

// The kernel log is a SEQPACKET socket, so that each write is a record. The crash text log is open.
class LogTest : public Phone {
  protected:
    void SetUp() override {
        Phone::SetUp();
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        file_ = std::exchange(kmsg_fd, ends[0]);
        reader_ = ends[1];
        write_file(kAndroidLog, "");
        dump().fd[DUMP_FD_LOG] =
                open(path("crash.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    }

    void TearDown() override {
        close(std::exchange(kmsg_fd, file_));
        close(reader_);
        Phone::TearDown();
    }

    Lines records() {
        Lines all;
        char record[4096];
        for (ssize_t size; (size = recv(reader_, record, sizeof(record), MSG_DONTWAIT)) > 0;)
            all.emplace_back(record, static_cast<size_t>(size));
        return all;
    }

    std::string crash_log() { return read_file(path("crash.log")); }

    int reader_ = -1;
    int file_ = -1;
};

TEST_F(LogTest, FormatsALineForEachSink) {
    errno = EACCES;
    const std::string denied = strerror(EACCES);
    Log::info("boot", "Power on %s\n", "CP");
    Log::error("boot", "%s: lost %d\n", "/dev/x", 7);
    Log::dump_info("dump", "size:%u\n", 5u);
    Log::dump_error("dump", "ERR! ioctl fail\n");
    close(std::exchange(dump().fd[DUMP_FD_LOG], -1));
    Log::dump_info("dump", "closed\n");
    EXPECT_EQ(errno, EACCES);
    EXPECT_THAT(records(),
                ElementsAre("<6>lnkm: rvd: boot: Power on CP\n",
                            "<3>lnkm: rvd: (ERR! " + denied + ") boot: /dev/x: lost 7\n",
                            "<6>lnkm: rvd: dump: size:5\n",
                            "<3>lnkm: rvd: (ERR! " + denied + ") dump: ERR! ioctl fail\n",
                            "<6>lnkm: rvd: dump: closed\n"));
    EXPECT_EQ(read_file(kAndroidLog), "D/boot: rvd: boot: Power on CP\nE/boot: rvd: (ERR! " +
                                              denied +
                                              ") boot: /dev/x: lost 7\nD/boot: rvd: dump: size:5\n"
                                              "E/boot: rvd: (ERR! " +
                                              denied +
                                              ") dump: ERR! ioctl fail\n"
                                              "D/boot: rvd: dump: closed\n");
    EXPECT_EQ(crash_log(), "dump: size:5\n(ERR! " + denied + ") dump: ERR! ioctl fail\n");
}

TEST_F(LogTest, CutsALineToOneKernelRecordAndKeepsItsNewline) {
    const size_t head = strlen("<6>lnkm: rvd: t: ");
    for (const size_t whole : {Log::kMaxRecord - 1, Log::kMaxRecord, Log::kMaxRecord + 1}) {
        const std::string text(whole - head - 1, 'x');
        Log::dump_info("t", "%s\n", text.c_str());
        const size_t kept = std::min(whole, Log::kMaxRecord);
        const std::string line = "t: " + text.substr(0, kept - head - 1) + "\n";
        EXPECT_THAT(records(), ElementsAre("<6>lnkm: rvd: " + line)) << whole;
        EXPECT_THAT(crash_log(), EndsWith(line));
    }
    Log::info(std::string(3000, 't').c_str(), "lost\n");
    EXPECT_THAT(records(),
                ElementsAre(testing::AllOf(testing::SizeIs(Log::kMaxRecord), EndsWith("\n"))));
    const wchar_t not_a_character[] = {0x7FFFFFFF, 0};
    Log::info("t", "x%ls\n", not_a_character);
    EXPECT_THAT(records(), ElementsAre("<6>lnkm: rvd: t: \n"));
}

TEST_F(LogTest, WritesToTheOtherSinksWhenOneFailsAndKeepsErrno) {
    const int working = std::exchange(kmsg_fd, -1);
    for (const auto log : {Log::info, Log::error, Log::dump_info, Log::dump_error}) {
        errno = ENOENT;
        log("t", "x\n");
        EXPECT_EQ(errno, ENOENT);
    }
    kmsg_fd = working;
    EXPECT_THAT(records(), IsEmpty());
    EXPECT_THAT(read_file(kAndroidLog), EndsWith("t: x\n"));
    EXPECT_THAT(crash_log(), EndsWith("t: x\n"));
}

TEST_F(LogTest, ClosesTheKernelLogUnlessItIsStandardOutput) {
    const int working = kmsg_fd;
    write_file("/dev/kmsg", "");
    Log::kprintf_init();
    EXPECT_GT(kmsg_fd, STDERR_FILENO);
    Log::info("main", "x\n");
    EXPECT_EQ(read_file("/dev/kmsg"), "<6>lnkm: rvd: main: x\n");
    Log::kprintf_deinit();
    EXPECT_EQ(fcntl(kmsg_fd, F_GETFD), -1);

    unlink("/dev/kmsg");
    Log::kprintf_init();
    EXPECT_EQ(kmsg_fd, -1);
    kmsg_fd = STDOUT_FILENO;
    Log::kprintf_deinit();
    EXPECT_NE(fcntl(STDOUT_FILENO, F_GETFD), -1);
    kmsg_fd = working;
}

using ThreadsLog = LogTest;

TEST_F(ThreadsLog, KeepsTheLinesOfTwoThreadsWholeAndInOrder) {
    constexpr size_t kLines = 400;
    const int records = std::exchange(
            kmsg_fd, open(path("kmsg").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const auto talk = [](char letter) {
        for (size_t i = 0; i <= kLines; ++i)
            Log::dump_info("t", "%s\n", std::string(i, letter).c_str());
    };
    std::thread other(talk, 'b');
    talk('a');
    other.join();
    close(std::exchange(kmsg_fd, records));
    const std::pair<std::string, std::string> sinks[] = {
            {path("kmsg"), "<6>lnkm: rvd: t: "},
            {path("crash.log"), "t: "},
            {kAndroidLog, "D/boot: rvd: t: "},
    };
    for (const auto& [file, head] : sinks) {
        std::istringstream lines(read_file(file));
        std::string line, last[] = {"", ""};
        while (std::getline(lines, line)) {
            ASSERT_EQ(line.substr(0, head.size()), head);
            line.erase(0, head.size());
            if (line.empty()) continue;
            std::string& before = last[line[0] - 'a'];
            before += line[0];
            ASSERT_TRUE(line == before) << line;
        }
        EXPECT_EQ(last[0].size() + last[1].size(), 2 * kLines);
    }
}

}  // namespace
}  // namespace rvd::test

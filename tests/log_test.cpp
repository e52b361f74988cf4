// The message operations and their sinks.
#include "log/Log.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "tests/support/phone.h"

namespace rvd::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

// The kernel log as a queue of records: one write, one record.
class LogTest : public Phone {
  protected:
    void SetUp() override {
        Phone::SetUp();
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        standing_ = kmsg_fd;
        kmsg_fd = ends[0];
        reader_ = ends[1];
        write_file(android_log(), "");
    }

    void TearDown() override {
        close(kmsg_fd);
        close(reader_);
        kmsg_fd = standing_;
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
    void open_crash_log() {
        dump().fd[DUMP_FD_LOG] = open(path("crash.log").c_str(), O_WRONLY | O_CREAT, 0600);
    }

    int reader_ = -1;
    int standing_ = -1;
};

TEST_F(LogTest, EverySinkHasItsOwnShape) {
    open_crash_log();
    errno = EACCES;
    const std::string denied = strerror(EACCES);

    Log::info("boot", "Power on %s\n", "CP");
    Log::error("boot", "%s: lost %d\n", "/dev/x", 7);
    Log::dump_info("dump", "size:%u\n", 5u);
    Log::dump_error("dump", "ERR! ioctl fail\n");

    EXPECT_THAT(records(),
                ElementsAre("<6>lnkm: rvd: boot: Power on CP\n",
                            "<3>lnkm: rvd: (ERR! " + denied + ") boot: /dev/x: lost 7\n",
                            "<6>lnkm: rvd: dump: size:5\n",
                            "<3>lnkm: rvd: (ERR! " + denied + ") dump: ERR! ioctl fail\n"));
    EXPECT_EQ(read_file(android_log()),
              "D/boot: rvd: boot: Power on CP\n"
              "E/boot: rvd: (ERR! " +
                      denied +
                      ") boot: /dev/x: lost 7\n"
                      "D/boot: rvd: dump: size:5\n"
                      "E/boot: rvd: (ERR! " +
                      denied + ") dump: ERR! ioctl fail\n");
    EXPECT_EQ(crash_log(), "dump: size:5\n(ERR! " + denied + ") dump: ERR! ioctl fail\n");
}

TEST_F(LogTest, ADumpMessageWithoutACrashLogGoesToTheTwoLogs) {
    Log::dump_info("dump", "size:%u\n", 5u);
    EXPECT_THAT(records(), ElementsAre("<6>lnkm: rvd: dump: size:5\n"));
    EXPECT_EQ(read_file(android_log()), "D/boot: rvd: dump: size:5\n");
}

static_assert(Log::kMaxRecord == 976);

TEST_F(LogTest, ALineFillsAtMostOneKernelRecordAndKeepsItsNewline) {
    const size_t head = strlen("<6>lnkm: rvd: t: ");
    open_crash_log();
    for (const size_t whole :
         {Log::kMaxRecord - 1, Log::kMaxRecord, Log::kMaxRecord + 1, size_t{5000}}) {
        const std::string text(whole - head - 1, 'x');
        Log::dump_info("t", "%s\n", text.c_str());
        const size_t kept = std::min(whole, Log::kMaxRecord);
        const std::string line = "t: " + text.substr(0, kept - head - 1) + "\n";
        EXPECT_THAT(records(), ElementsAre("<6>lnkm: rvd: " + line)) << whole;
        EXPECT_TRUE(crash_log().substr(crash_log().size() - line.size()) == line) << whole;
    }
    Log::info(std::string(3000, 't').c_str(), "lost\n");
    EXPECT_THAT(records(), ElementsAre(testing::AllOf(testing::SizeIs(Log::kMaxRecord),
                                                      testing::EndsWith("\n"))));
    const wchar_t not_a_character[] = {0x7FFFFFFF, 0};
    Log::info("t", "x%ls\n", not_a_character);
    EXPECT_THAT(records(), ElementsAre("<6>lnkm: rvd: t: \n"));
}

TEST_F(LogTest, ErrnoIsOfTheMomentAndStays) {
    for (const int reason : {0, ENOENT, EIO}) {
        errno = reason;
        Log::error("t", "a %s\n", "b");
        Log::info("t", "c\n");
        EXPECT_EQ(errno, reason);
        EXPECT_THAT(records(), Contains(std::string("<3>lnkm: rvd: (ERR! ") + strerror(reason) +
                                        ") t: a b\n"));
    }
}

TEST_F(LogTest, ASinkThatFailsKeepsNothingFromTheOthers) {
    const int working = kmsg_fd;
    open_crash_log();
    kmsg_fd = -1;
    for (const auto log : {Log::info, Log::error, Log::dump_info, Log::dump_error}) {
        errno = ENOENT;
        log("t", "x\n");
        EXPECT_EQ(errno, ENOENT);
    }
    kmsg_fd = working;
    EXPECT_THAT(records(), IsEmpty());
    EXPECT_THAT(read_file(android_log()), testing::EndsWith("t: x\n"));
    EXPECT_THAT(crash_log(), testing::EndsWith("t: x\n"));
}

TEST_F(LogTest, TheKernelLogIsOpenedOnceAndClosedUnlessItIsStandardOutput) {
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

using ThreadsLog = Phone;

TEST_F(ThreadsLog, LinesOfTwoThreadsAlternateButNeverMix) {
    constexpr int kLines = 400;
    write_file(android_log(), "");
    const int append = open(path("kmsg").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    dump().fd[DUMP_FD_LOG] = open(path("crash.log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    const int standing = kmsg_fd;
    kmsg_fd = append;
    const auto talk = [](char letter) {
        for (int i = 0; i < kLines; ++i)
            Log::dump_info("t", "%s\n", std::string(static_cast<size_t>(i), letter).c_str());
    };
    std::thread other(talk, 'b');
    talk('a');
    other.join();
    kmsg_fd = standing;
    close(append);

    const auto expect_whole = [](const std::string& text, const std::string& head) {
        std::istringstream lines(text);
        size_t count[2] = {};
        for (std::string line; std::getline(lines, line);) {
            ASSERT_EQ(line.substr(0, head.size()), head);
            const std::string rest = line.substr(head.size());
            const char letter = rest.empty() ? 'a' : rest[0];
            if (rest.empty()) continue;
            size_t& next = count[letter - 'a'];
            ASSERT_TRUE(rest == std::string(++next, letter)) << line;
        }
        EXPECT_THAT(count, ElementsAre(kLines - 1, kLines - 1));
    };
    expect_whole(read_file(path("kmsg")), "<6>lnkm: rvd: t: ");
    expect_whole(read_file(path("crash.log")), "t: ");
    expect_whole(read_file(android_log()), "D/boot: rvd: t: ");
}

}  // namespace
}  // namespace rvd::test

// Android's properties and log, as they stand in for the platform on this machine.
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <cutils/properties.h>
#include <log/log.h>

#include "platform/host/log_sink.h"
#include "tests/support/host.h"

namespace rvd::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string stored(const std::string& key) {
    return property_store() + "/" + key;
}

// The value, and a check of what every call promises beside it.
std::string get(const std::string& key, const char* default_value = nullptr) {
    char value[PROPERTY_VALUE_MAX];
    memset(value, 'x', sizeof(value));
    errno = ENOTTY;
    const int length = property_get(key.c_str(), value, default_value);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(static_cast<size_t>(length), strnlen(value, sizeof(value)));
    return value;
}

// Runs `work` in processes and in threads of this process at once, each with a number of its own,
// and returns the sum of the results.
int run_together(int processes, int threads, const std::function<int(int)>& work) {
    std::vector<pid_t> children;
    for (int i = 0; i < processes; ++i) {
        const pid_t child = fork();
        if (child == 0) _exit(work(i));
        children.push_back(child);
    }
    std::vector<int> results(static_cast<size_t>(threads));
    std::vector<std::thread> running;
    for (int i = 0; i < threads; ++i) {
        running.emplace_back([&, i] { results[static_cast<size_t>(i)] = work(processes + i); });
    }
    int sum = 0;
    for (auto& thread : running)
        thread.join();
    for (const int result : results)
        sum += result;
    for (const pid_t child : children) {
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status));
        sum += WEXITSTATUS(status);
    }
    return sum;
}

TEST(Properties, ValueOrDefault) {
    const std::string longest(91, 'v');
    const std::string too_long(92, 'v');
    const struct {
        const char* content;  // of the file; null: none
        const char* default_value;
        std::string value;
    } cases[] = {
            {"1", "0", "1"},
            {"1\n", "0", "1\n"},
            {nullptr, "0", "0"},
            {nullptr, nullptr, ""},
            {nullptr, too_long.c_str(), longest},
            {"", "0", "0"},
            {"", nullptr, ""},
            {longest.c_str(), "0", longest},
            {too_long.c_str(), "0", longest},
    };
    for (const auto& c : cases) {
        std::filesystem::remove(stored("a.b"));
        if (c.content != nullptr) write_file(stored("a.b"), c.content);
        EXPECT_EQ(get("a.b", c.default_value), c.value);
    }
}

TEST(Properties, NumbersAreReadAsThePlatformReadsThem) {
    constexpr int32_t kDefault = -7;
    const struct {
        const char* text;
        int32_t number;
    } cases[] = {
            {"4", 4},
            {"-1", -1},
            {" \t+12", 12},
            {"0x10", 16},
            {"-0X10", -16},
            {"010", 8},
            {"08", 0},
            {"12abc", 12},
            {"1 2", 1},
            {"2147483647", INT32_MAX},
            {"-2147483648", INT32_MIN},
            {"2147483648", kDefault},
            {"-2147483649", kDefault},
            {"99999999999999999999", kDefault},
            {"-99999999999999999999", kDefault},
            {"", kDefault},
            {" ", kDefault},
            {"-", kDefault},
            {"abc", kDefault},
    };
    EXPECT_EQ(property_get_int32("number", kDefault), kDefault);
    for (const auto& c : cases) {
        ASSERT_EQ(property_set("number", c.text), 0);
        errno = ENOTTY;
        EXPECT_EQ(property_get_int32("number", kDefault), c.number) << '"' << c.text << '"';
        EXPECT_EQ(errno, ENOTTY) << '"' << c.text << '"';
    }
}

TEST(Properties, OnlyLegalNamesReachTheStore) {
    write_file(property_store() + "/../outside", "secret");
    const struct {
        const char* name;
        bool legal;
    } cases[] = {
            {"vendor.rvd.cpboot", true},
            {"A-z_0:9@x", true},
            {"a", true},
            {"", false},
            {".a", false},
            {"a.", false},
            {"a..b", false},
            {"../outside", false},
            {"a/b", false},
            {"a b", false},
            {"a\n", false},
            {"\xc3\xa4", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(property_set(c.name, "1"), c.legal ? 0 : -1) << c.name;
        EXPECT_EQ(get(c.name, "none"), c.legal ? "1" : "none") << c.name;
    }
    EXPECT_EQ(property_set(nullptr, "1"), -1);
    EXPECT_THAT(list(property_store()), ElementsAre("A-z_0:9@x", "a", "vendor.rvd.cpboot"));
    EXPECT_EQ(read_file(property_store() + "/../outside"), "secret");
}

TEST(Properties, WriteReplacesTheValueOrLeavesIt) {
    EXPECT_EQ(property_set("p", "first, which is longer"), 0);
    EXPECT_EQ(property_set("p", "second"), 0);
    EXPECT_EQ(read_file(stored("p")), "second");

    const std::string longest(91, 'v');
    EXPECT_EQ(property_set("p", longest.c_str()), 0);
    EXPECT_EQ(property_set("p", (longest + "v").c_str()), -1);
    EXPECT_EQ(get("p"), longest);

    EXPECT_EQ(property_set("p", nullptr), 0);
    EXPECT_EQ(get("p", "unset"), "unset");
    EXPECT_THAT(list(property_store()), ElementsAre("p"));
}

TEST(Properties, ReadOnlyOnesAreWrittenOnce) {
    EXPECT_EQ(property_set("ro.once", "first"), 0);
    EXPECT_EQ(property_set("ro.once", "second"), -1);
    EXPECT_EQ(get("ro.once"), "first");
    // An empty value is unset to a reader, and still the one write.
    EXPECT_EQ(property_set("ro.empty", ""), 0);
    EXPECT_EQ(property_set("ro.empty", "second"), -1);
    EXPECT_EQ(property_set("rover", "1"), 0);
    EXPECT_EQ(property_set("rover", "2"), 0);
    EXPECT_THAT(list(property_store()), ElementsAre("ro.empty", "ro.once", "rover"));
}

TEST(Properties, FailedWriteKeepsTheOldValueAndLeavesNothingBehind) {
    ASSERT_EQ(property_set("p", "old"), 0);
    // A disk that takes the first four bytes only.
    const int held = run_together(1, 0, [](int) {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {4, 4};
        setrlimit(RLIMIT_FSIZE, &limit);
        return property_set("p", "new and longer") == -1 ? 1 : 0;
    });
    EXPECT_EQ(held, 1);
    EXPECT_EQ(get("p"), "old");

    // A place that cannot be taken.
    std::filesystem::create_directory(stored("taken"));
    EXPECT_EQ(property_set("taken", "1"), -1);
    EXPECT_EQ(get("taken", "unset"), "unset");
    EXPECT_THAT(list(property_store()), ElementsAre("p", "taken"));
}

TEST(Properties, WithoutAStoreNothingIsSet) {
    std::filesystem::remove_all(property_store());
    EXPECT_EQ(property_set("p", "1"), -1);
    EXPECT_EQ(get("p", "unset"), "unset");
}

TEST(ThreadsProperties, ReadersSeeWholeValues) {
    constexpr int kRounds = 300;
    ASSERT_EQ(property_set("shared", "a"), 0);
    const int torn = run_together(3, 3, [](int number) {
        // A value of one letter only, of a length that is the writer's own.
        const std::string mine(static_cast<size_t>(1 + number * 15),
                               static_cast<char>('a' + number));
        int bad = 0;
        for (int i = 0; i < kRounds; ++i) {
            if (property_set("shared", mine.c_str()) != 0) bad = 1;
            char seen[PROPERTY_VALUE_MAX];
            const int length = property_get("shared", seen, nullptr);
            const bool whole = length == 1 + (seen[0] - 'a') * 15 &&
                               strspn(seen, std::string(1, seen[0]).c_str()) == strlen(seen);
            if (!whole) bad = 1;
        }
        return bad;
    });
    EXPECT_EQ(torn, 0);
    EXPECT_THAT(list(property_store()), ElementsAre("shared"));
}

TEST(ThreadsProperties, OneWriterOfAReadOnlyPropertyWins) {
    constexpr int kRounds = 50;
    for (int round = 0; round < kRounds; ++round) {
        const std::string key = "ro.round." + std::to_string(round);
        const int winners = run_together(2, 2, [&key](int number) {
            return property_set(key.c_str(), std::to_string(number).c_str()) == 0 ? 1 : 0;
        });
        ASSERT_EQ(winners, 1) << key;
    }
    EXPECT_EQ(list(property_store()).size(), static_cast<size_t>(kRounds));
}

TEST(AndroidLog, OneLineForEachMessage) {
    const std::string longest(1023, 'm');
    const struct {
        int priority;
        const char* tag;
        std::string text;
        std::string line;
    } cases[] = {
            {ANDROID_LOG_DEBUG, "boot", "rvd: main: text\n", "D/boot: rvd: main: text\n"},
            {ANDROID_LOG_ERROR, "boot", "two newlines\n\n", "E/boot: two newlines\n"},
            {ANDROID_LOG_INFO, "boot", "no newline", "I/boot: no newline\n"},
            {ANDROID_LOG_WARN, nullptr, "\n", "W/: \n"},
            {99, "t", "a\nb\n", "?/t: a\nb\n"},
            {ANDROID_LOG_DEBUG, "t", longest, "D/t: " + longest + "\n"},
            {ANDROID_LOG_DEBUG, "t", longest + "x\n", "D/t: " + longest + "\n"},
            {ANDROID_LOG_DEBUG, longest.c_str(), longest,
             "D/" + longest.substr(0, 100) + ": " + longest + "\n"},
    };
    std::string all;
    for (const auto& c : cases) {
        errno = ENOTTY;
        EXPECT_EQ(__android_log_buf_print(LOG_ID_RADIO, c.priority, c.tag, "%s", c.text.c_str()),
                  1);
        EXPECT_EQ(errno, ENOTTY);
        all += c.line;
        EXPECT_EQ(read_file(android_log()), all);
    }
}

TEST(AndroidLog, TheFormatSeesTheCallersErrno) {
    errno = ENOSPC;
    __android_log_buf_print(LOG_ID_RADIO, ANDROID_LOG_ERROR, "boot", "%m");
    EXPECT_EQ(read_file(android_log()), std::string("E/boot: ") + strerror(ENOSPC) + "\n");
}

TEST(AndroidLog, StandardErrorWhereNoFileCanBeOpened) {
    const TempDir directory;
    const std::string missing = directory / "missing/log";
    for (const char* path : {static_cast<const char*>(nullptr), "", missing.c_str()}) {
        testing::internal::CaptureStderr();
        host::LogSink(path).write_line("line\n", 5);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "line\n");
    }
}

TEST(AndroidLog, APipeThatNobodyReadsLosesTheLine) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    while (write(ends[1], "x", 1) == 1) {
    }
    ASSERT_EQ(fcntl(ends[1], F_SETFL, 0), 0);
    host::LogSink(ends[1]).write_line("lost\n", 5);  // comes back

    std::string content(1 << 20, '\0');
    const ssize_t got = read(ends[0], content.data(), content.size());
    ASSERT_GT(got, 0);
    EXPECT_EQ(content.find('l'), std::string::npos);
    close(ends[0]);
    close(ends[1]);
}

TEST(ThreadsAndroidLog, LinesStayWhole) {
    constexpr int kLines = 500;
    constexpr int kProcesses = 3;
    constexpr int kThreads = 3;
    run_together(kProcesses, kThreads, [](int number) {
        const std::string text(static_cast<size_t>(50 + number * 150),
                               static_cast<char>('a' + number));
        for (int i = 0; i < kLines; ++i) {
            __android_log_buf_print(LOG_ID_RADIO, ANDROID_LOG_DEBUG, "boot", "%s\n", text.c_str());
        }
        return 0;
    });

    std::map<std::string, int> seen;
    std::istringstream lines(read_file(android_log()));
    for (std::string line; std::getline(lines, line);)
        ++seen[line];
    EXPECT_EQ(seen.size(), static_cast<size_t>(kProcesses + kThreads));
    for (const auto& [line, count] : seen)
        EXPECT_EQ(count, kLines) << line;
}

}  // namespace
}  // namespace rvd::test

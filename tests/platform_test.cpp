// The host's implementation of Android's properties and log.
#include <sys/wait.h>

#include <atomic>
#include <thread>

#include <cutils/properties.h>
#include <log/log.h>

#include "platform/host/log_sink.h"
#include "tests/support/phone.h"

namespace rvd::test {
namespace {

using Properties = Host;
using ThreadsProperties = Host;
using AndroidLog = Host;

const std::string kLongest(91, 'v'), kTooLong(92, 'v');

std::string get(const std::string& key, const char* default_value = nullptr) {
    char value[PROPERTY_VALUE_MAX];
    memset(value, 'x', sizeof(value));
    errno = ENOTTY;
    const int length = property_get(key.c_str(), value, default_value);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(static_cast<size_t>(length), strnlen(value, sizeof(value)));
    return value;
}

// Runs `work` in six threads, three in each of two processes. Returns the sum of the results.
template <class Work>
int run_six(const Work& work) {
    const pid_t child = fork();
    std::atomic<int> sum{0};
    std::vector<std::thread> threads;
    for (int i = child == 0 ? 0 : 3; threads.size() < 3; ++i)
        threads.emplace_back([&, i] { sum += work(i); });
    for (std::thread& thread : threads)
        thread.join();
    if (child == 0) _exit(sum);
    int status = 0;
    waitpid(child, &status, 0);
    return sum + WEXITSTATUS(status);
}

TEST_F(Properties, ReturnTheValueOrTheDefault) {
    const struct {
        const char* content;  // of the file; null: none
        const char* default_value;
        std::string value;
    } cases[] = {
            {"1\n", "0", "1\n"},
            {nullptr, nullptr, ""},
            {nullptr, kTooLong.c_str(), kLongest},
            {"", "0", "0"},
            {kTooLong.c_str(), "0", kLongest},
    };
    for (const auto& c : cases) {
        fs::remove(std::string(kPropertyStore) + "/a.b");
        if (c.content != nullptr) set_property("a.b", c.content);
        EXPECT_EQ(get("a.b", c.default_value), c.value);
    }
}

TEST_F(Properties, ReturnANumberInAnyBaseOrTheDefault) {
    constexpr int32_t kDefault = -7;
    const std::pair<const char*, int32_t> cases[] = {
            {" \t+12", 12},
            {"-0X10", -16},
            {"010", 8},
            {"12abc", 12},
            {"2147483647", INT32_MAX},
            {"-2147483648", INT32_MIN},
            {"2147483648", kDefault},
            {"-2147483649", kDefault},
            {"", kDefault},
    };
    EXPECT_EQ(property_get_int32("number", kDefault), kDefault);
    for (const auto& [text, number] : cases) {
        set_property("number", text);
        errno = ENOTTY;
        EXPECT_EQ(property_get_int32("number", kDefault), number) << '"' << text << '"';
        EXPECT_EQ(errno, ENOTTY) << '"' << text << '"';
    }
}

TEST_F(Properties, RefuseInvalidNames) {
    for (const char* name :
         {"", ".a", "a.", "a..b", "../outside", "a/b", "a b", "a\n", "\xc3\xa4"}) {
        EXPECT_EQ(property_set(name, "1"), -1) << name;
        EXPECT_EQ(get(name, "none"), "none") << name;
    }
    EXPECT_EQ(property_set(nullptr, "1"), -1);
    for (const char* name : {"vendor.rvd.cpboot", "A-z_0:9@x"})
        EXPECT_EQ(property_set(name, "1"), 0) << name;
    EXPECT_THAT(list(kPropertyStore), ElementsAre("A-z_0:9@x", "vendor.rvd.cpboot"));
}

TEST_F(Properties, KeepTheOldValueWhenAWriteFails) {
    fs::create_directory(std::string(kPropertyStore) + "/taken");
    const struct {
        const char* name;
        const char* value;
        int result;
        std::string after;
    } cases[] = {
            {"p", "longer", 0, "longer"},
            {"p", "short", 0, "short"},
            {"p", kLongest.c_str(), 0, kLongest},
            {"p", kTooLong.c_str(), -1, kLongest},
            {"p", nullptr, 0, ""},
            {"taken", "1", -1, ""},
            {"ro.p", "first", 0, "first"},
            {"ro.p", "second", -1, "first"},
            {"ro.e", "", 0, ""},  // reads as unset, and yet cannot be written again
            {"ro.e", "second", -1, ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(property_set(c.name, c.value), c.result) << c.name;
        EXPECT_EQ(get(c.name), c.after);
    }
    set_property("p", "old");
    {
        const FullDisk disk(4);
        EXPECT_EQ(property_set("p", "longer"), -1);
    }
    EXPECT_EQ(get("p"), "old");
    EXPECT_THAT(list(kPropertyStore), ElementsAre("p", "ro.e", "ro.p", "taken"));
    fs::remove_all(kPropertyStore);
    EXPECT_EQ(property_set("p", "1"), -1);
}

TEST_F(ThreadsProperties, AreReadWholeAndReadOnlyOnesAreWrittenOnce) {
    set_property("shared", "a");
    for (int round = 0; round < 50; ++round) {
        const std::string once = "ro.round." + std::to_string(round);
        const int torn_and_won = run_six([&](int number) {
            // A value that repeats the writer's letter, of the writer's length.
            const std::string mine(static_cast<size_t>(1 + number * 15),
                                   static_cast<char>('a' + number));
            int torn = property_set("shared", mine.c_str()) == 0 ? 0 : 10;
            for (int i = 0; i < 5; ++i) {
                char seen[PROPERTY_VALUE_MAX];
                const int length = property_get("shared", seen, nullptr);
                if (length != 1 + (seen[0] - 'a') * 15 ||
                    std::string(seen).find_first_not_of(seen[0]) != std::string::npos)
                    torn = 10;
            }
            return torn + (property_set(once.c_str(), mine.c_str()) == 0 ? 1 : 0);
        });
        ASSERT_EQ(torn_and_won, 1);
    }
    EXPECT_EQ(list(kPropertyStore).size(), 51u);
}

TEST_F(AndroidLog, WritesAMessageAsOneLine) {
    const std::string longest(1023, 'm');
    const struct {
        int priority;
        const char* tag;
        std::string text;
        std::string line;
    } cases[] = {
            {ANDROID_LOG_DEBUG, "boot", "rvd: main: text\n", "D/boot: rvd: main: text\n"},
            {ANDROID_LOG_ERROR, "boot", "two newlines\n\n", "E/boot: two newlines\n"},
            {ANDROID_LOG_WARN, nullptr, "\n", "W/: \n"},
            {99, "t", "a\nb\n", "?/t: a\nb\n"},
            {ANDROID_LOG_DEBUG, "t", longest + "x\n", "D/t: " + longest + "\n"},
            {ANDROID_LOG_DEBUG, longest.c_str(), longest,
             "D/" + longest.substr(0, 100) + ": " + longest + "\n"},
    };
    for (const auto& c : cases) {
        write_file(kAndroidLog, "");
        errno = ENOSPC;
        __android_log_buf_print(LOG_ID_RADIO, c.priority, c.tag, "%s", c.text.c_str());
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(read_file(kAndroidLog), c.line);
    }
    write_file(kAndroidLog, "");
    __android_log_buf_print(LOG_ID_RADIO, ANDROID_LOG_ERROR, "boot", "%m");
    EXPECT_EQ(read_file(kAndroidLog), std::string("E/boot: ") + strerror(ENOSPC) + "\n");
}

TEST_F(AndroidLog, FallsBackToStandardErrorAndDropsLinesInsteadOfBlocking) {
    for (const char* unusable : {static_cast<const char*>(nullptr), "", "/missing/log"}) {
        testing::internal::CaptureStderr();
        host::LogSink(unusable).write_line("line\n", 5);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "line\n");
    }
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    while (write(ends[1], "x", 1) == 1) {
    }
    ASSERT_EQ(fcntl(ends[1], F_SETFL, 0), 0);
    host::LogSink(ends[1]).write_line("lost\n", 5);
    std::string content(1 << 20, '\0');
    EXPECT_GT(read(ends[0], content.data(), content.size()), 0);
    EXPECT_EQ(content.find('l'), std::string::npos);
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
}  // namespace rvd::test

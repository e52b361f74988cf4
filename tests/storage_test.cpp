// The log directory, its free space, and the saved kernel logs.
#include "tests/support/phone.h"

namespace rvd::test {
namespace {

static_assert(Log::kRingSize == 524288);

class Storage : public Phone {
  protected:
    // Creates the log directory, and checks for a pause between two failed tries.
    static int create() {
        kernel().sleeps.clear();
        const int result = Log::create_log_directory(kLogDir);
        EXPECT_EQ(kernel().sleeps, std::vector<unsigned>(result == 0 ? 0 : 5, 1000));
        return result;
    }

    static mode_t mode(const std::string& file) {
        struct stat status = {};
        stat(file.c_str(), &status);
        return status.st_mode;
    }
};

TEST_F(Storage, CreatesTheLogDirectoryUnlessAFileHasItsName) {
    const std::string directory = kLogDir;
    fs::remove(directory);
    EXPECT_EQ(create(), 0);
    EXPECT_EQ(mode(directory), S_IFDIR | 0775u);
    fs::remove(directory);
    write_file(directory, "a file");
    EXPECT_EQ(create(), -14);
    EXPECT_THAT(said(), Contains("create_directory: (" + directory + ") is not a directory"));
}

TEST_F(Storage, NeedsFreeSpaceForLogsAndForADump) {
    const struct {
        unsigned long block_size;
        unsigned long free_blocks;
        int directory;  // 500 MB
        int root;       // 256 MB
    } cases[] = {
            {1024, 500 * 1024, 0, 0},   {1024, 500 * 1024 - 1, -28, 0},
            {1024, 256 * 1024, -28, 0}, {1024, 256 * 1024 - 1, -28, -28},
            {4096, 125 * 1024, 0, 0},   {4096, 125 * 1024 - 1, -28, 0},
            {1023, 1u << 30, -28, -28},  // the block size is rounded down to KiB
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.free_blocks);
        kernel().block_size = c.block_size;
        kernel().free_blocks = c.free_blocks;
        EXPECT_EQ(create(), c.directory);
        EXPECT_EQ(Log::check_fs_free_space(Log::get_log_root()), c.root);
    }
    kernel().statfs_error = ENOSYS;
    EXPECT_EQ(Log::check_fs_free_space(Log::get_log_root()), -ENOSYS);
    EXPECT_EQ(last_said(), "! check_fs_free_space: statfs(/data) fail");
    EXPECT_EQ(create(), -1);
    EXPECT_EQ(last_said(), "create_log_directory: check_log_directory err(-1)");
}

TEST_F(Storage, RemovesNothingButTheLogDirectory) {
    for (const char* other : {"/data/vendor/log", "/data/misc", "/data/vendor/log/rv"})
        EXPECT_NE(Log::remove_directory(other), 0);
    EXPECT_EQ(last_said(),
              "! remove_directory: Tried to remove false path: /data/vendor/log/rv, 20");
    fs::create_directories("/efs/kept");
    fs::create_directories(std::string(kLogDir) + "/a/b");
    fs::create_symlink("/efs", std::string(kLogDir) + "/a/link");
    testing::internal::CaptureStderr();
    EXPECT_EQ(Log::remove_directory(kLogDir), 0);
    EXPECT_FALSE(fs::exists(kLogDir));
    fs::create_directory_symlink("/efs", kLogDir);
    EXPECT_EQ(Log::remove_directory(kLogDir), 0);
    EXPECT_FALSE(fs::is_symlink(kLogDir));
    EXPECT_TRUE(fs::exists("/efs/kept"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Storage, SavesTheEndOfTheKernelLogAndANul) {
    const struct {
        size_t ring;
        int flags;
        const char* file;  // null: none
    } cases[] = {
            {10, 1, "x_[0-9]{12}_[0-9]{2}.log"},
            {10, 5, "x_last.log"},
            {0, 4, "x_last.log"},
            {size_t{Log::kRingSize} + 9, 4, "x_last.log"},
            {10, 0, nullptr},
            {10, 2, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.flags);
        kernel().ring = pattern(c.ring);
        Log::save_logs(c.flags, "x");
        const Lines files = list(kLogDir);
        ASSERT_EQ(files.size(), c.file == nullptr ? 0u : 1u);
        if (c.file == nullptr) continue;
        EXPECT_THAT(files[0], MatchesRegex(c.file));
        const std::string file = std::string(kLogDir) + "/" + files[0];
        const size_t kept = std::min(c.ring, size_t{Log::kRingSize});
        EXPECT_TRUE(read_file(file) == pattern(c.ring).substr(c.ring - kept) + '\0');
        EXPECT_EQ(last_said(), "_save_logs: " + file);
        fs::remove(file);
    }
    const std::string last = std::string(kLogDir) + "/x_last.log";
    for (const char text : {'1', '2'}) {
        kernel().ring = std::string(1, text);
        Log::save_logs(4, "x");
        EXPECT_EQ(mode(last), S_IFREG | 0664u);
        chmod(last.c_str(), 0600);
    }
    EXPECT_EQ(read_file(last), std::string("1\0002\0", 4));
    kernel().ring_error = EPERM;
    EXPECT_EQ(Log::dmesg_to_file(path("y").c_str()), -1);
    EXPECT_EQ(last_said(), "dmesg_to_file: klogctl fail");
    EXPECT_EQ(Log::dmesg_to_file("/data/none/y"), -1);
    EXPECT_EQ(last_said(), "! dmesg_to_file: file open fail /data/none/y");
    kernel().ring_error = 0;
    kernel().ring = pattern(100000);  // one byte too much with its NUL
    const FullDisk disk(100000);
    EXPECT_EQ(Log::dmesg_to_file(path("y").c_str()), 0);
    EXPECT_EQ(last_said(), "! dmesg_to_file: write fail");
}

using ThreadsStorage = Storage;

TEST_F(ThreadsStorage, SavesInTheBackgroundUnderTheNameOfTheCall) {
    write_file(kGroups, "log:x:0:\n");
    for (const std::string chip : {"talvir410", "talvir4180x", "talvir418", "NONE", ""}) {
        set_property("ro.hardware.chipname", chip);
        const bool saves = chip != "talvir410" && chip != "talvir4180x";
        for (const char letter : {'a', 'b', 'c'}) {
            char name[] = {letter, '\0'};
            Log::save_logs_thread(1, name);
            name[0] = 'x';
        }
        for (int i = 0; i < 50; ++i) {
            Log::check_debug_level();
            Log::dump_info("main", "meanwhile %d\n", i);
        }
        EXPECT_EQ(kernel().join_detached(), saves ? 3u : 0u) << chip;
        std::string letters;
        for (const std::string& file : list(kLogDir)) {
            EXPECT_THAT(file, MatchesRegex("[abc]_[0-9]{12}_[0-9]{2}.log"));
            letters += file[0];
            fs::remove(std::string(kLogDir) + "/" + file);
        }
        EXPECT_EQ(letters, saves ? "abc" : "");
    }
    debug_level = 0;
    Log::save_logs_thread(1, "x");
    EXPECT_EQ(kernel().join_detached(), 0u);
}

}  // namespace
}  // namespace rvd::test

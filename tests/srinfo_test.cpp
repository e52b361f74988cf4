// Silent-reset records: stored from the driver into two files, and restored.
#include <sys/mman.h>

#include "srinfo/SrinfoVelo.h"
#include "tests/support/phone.h"

namespace rvd::test {
namespace {

constexpr char kLast[] = "/data/vendor/log/rvd/err/last_sr_info_umts";
constexpr char kHexLog[] = "/data/vendor/log/rvd/sr_info_umts";
constexpr char kPrevious[] = "/data/vendor/log/rvd/.sr_info_umts.bak";
constexpr int kNode = 99;  // passed on to the fake driver only
constexpr size_t kDataSize = kSrinfoDataSize;
static_assert(kSrinfoDataSize == 4092 && kSrinfoLogLimit == 65536);

// A valid data area full of text, with a closing brace only at `brace`.
std::string record_with_brace(size_t brace) {
    std::string data(kDataSize, 'z');
    data.replace(16, 7, "{\"JVER\"");
    if (16 + brace < kDataSize) data[16 + brace] = '}';
    return data;
}

class SrinfoTest : public Phone {
  protected:
    void store(const std::string& data, uint32_t size) {
        driver().expect<srinfo_buf>(IOCTL_GET_SRINFO, [=](srinfo_buf& record) {
            EXPECT_EQ(record.len, kDataSize);
            EXPECT_EQ(std::count(record.data, record.data + kDataSize, '\0'), 4092);
            data.copy(record.data, kDataSize);
            record.len = size;
            return 0;
        });
        srinfo_.store_srinfo(kNode);
    }

    void restore(const std::string& text, int result) {
        driver().expect<srinfo_buf>(IOCTL_SET_SRINFO, [=](srinfo_buf& record) {
            EXPECT_EQ(record.len, text.size());
            EXPECT_TRUE(std::string(record.data, kDataSize) ==
                        text + std::string(kDataSize - text.size(), '\0'));
            return result;
        });
        srinfo_.restore_srinfo(kNode);
    }

    SrinfoVelo srinfo_;
};

TEST_F(SrinfoTest, StoresARecordInItsFilesAndRestoresIt) {
    const size_t none = kDataSize;
    const struct {
        uint32_t size;
        size_t brace;  // index in the text
        size_t last;   // bytes in the last-srinfo file
        size_t rows;
    } cases[] = {
            {0, none, 1, 0},         {16, none, 17, 1},
            {17, none, 18, 2},       {17, 16, 17, 2},
            {17, 17, 18, 2},         {100, 40, 41, 7},
            {4075, none, 4076, 255}, {4076, none, 4077, 255},
            {4080, none, 4081, 255}, {4081, none, 4082, 256},
            {4092, none, 4093, 256}, {4092, 4075, 4076, 256},
            {4093, none, 4093, 256}, {UINT32_MAX, none, 4093, 256},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.size) + " bytes, brace at " + std::to_string(c.brace));
        const std::string data = record_with_brace(c.brace);
        // Bytes beyond the data area count as zeros.
        const std::string text = (data.substr(16) + std::string(32, '\0')).substr(0, c.last);
        fs::remove(kHexLog);
        said();
        store(data, c.size);
        EXPECT_TRUE(read_file(kLast) == text);
        const std::string log = read_file(kHexLog);
        EXPECT_EQ(static_cast<size_t>(std::count(log.begin(), log.end(), '\n')), c.rows + 2);
        EXPECT_THAT(said(), Contains("write_srinfo_last: store to ascii text (" +
                                     std::to_string(c.last - 1) + " bytes)"));

        // No newer record is fetched until this one is restored.
        srinfo_.store_srinfo(kNode);
        EXPECT_EQ(last_said(), "store_srinfo: srinfo_last file exist, skip!");
        EXPECT_EQ(read_file(kHexLog), log);

        restore(text.substr(0, kDataSize), -1);
        EXPECT_EQ(last_said(), "! restore_srinfo: ioctl fail - Set srinfo(-1)");
        restore(text.substr(0, kDataSize), 0);
        EXPECT_EQ(last_said(), std::string("restore_srinfo: done = ") + kLast);
        EXPECT_FALSE(fs::exists(kLast));
    }
}

TEST_F(SrinfoTest, TakesTheLastFileForMissingOnlyAtEnoentAndEnotdir) {
    const std::string directory = std::string(kLogDir) + "/err";
    fs::create_symlink(directory, directory);  // ELOOP
    srinfo_.store_srinfo(kNode);
    EXPECT_EQ(last_said(), "store_srinfo: srinfo_last file exist, skip!");
    fs::remove(directory);
    write_file(directory, "a file");  // ENOTDIR
    store(record_with_brace(40), 100);
    EXPECT_EQ(last_said(), "create_srinfo_directory: (" + directory + ") is not a directory");
}

TEST_F(SrinfoTest, LogsARecordAsWordsAndCharacters) {
    // The record ends at the end of its page; reading further is a segmentation fault.
    char* pages = static_cast<char*>(
            mmap(nullptr, 65536 * 2, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(pages + 65536, 65536, PROT_NONE);
    const std::string data("\x01\x02\x03\x04 !\"~\0\0\0\0\0\0\0\0AZ}\x7F\xFF\x80\x22\x30", 24);
    char* record = pages + 65536 - 32;
    data.copy(record, data.size());
    const int fd = open(path("log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    EXPECT_EQ(srinfo_.write_srinfo_file(fd, record, 18), 18);
    EXPECT_THAT(read_file(path("log")),
                MatchesRegex("\\[....-..-.. ..:..:..\\]\n"
                             "0000:04030201 7e222120 00000000 00000000 ......\"[.]{9}\n"
                             "0010:7f7d5a41 302280ff 00000000 00000000 AZ}...\"0[.]{8}\n\n"));
    memset(record, 0, 32);
    EXPECT_EQ(srinfo_.write_srinfo_last(fd, record - 3, 18), 19);
    std::string area(kDataSize, '\0');
    area.replace(4080, 12, "end of area.");
    EXPECT_EQ(srinfo_.write_srinfo_file(fd, area.data(), 4081), 4081);
    EXPECT_THAT(read_file(path("log")),
                EndsWith("\n0ff0:20646e65 6120666f 2e616572 00000000 end.of.area.....\n\n"));
    close(fd);
    munmap(pages, 65536 * 2);
}

TEST_F(SrinfoTest, RotatesALogOfMoreThan64KiB) {
    for (const size_t size : {size_t{kSrinfoLogLimit}, size_t{kSrinfoLogLimit} + 1}) {
        const std::string old(size, 'o');
        write_file(kHexLog, old);
        write_file(kPrevious, "older");
        fs::remove(kLast);
        store(record_with_brace(40), 16);
        const bool rotated = size > size_t{kSrinfoLogLimit};
        EXPECT_EQ(read_file(kPrevious), rotated ? old : "older");
        EXPECT_EQ(read_file(kHexLog).substr(0, size) == old, !rotated);
        EXPECT_EQ(read_file(kHexLog).size(), (rotated ? 0 : size) + 22 + 58 + 1);
    }
}

}  // namespace
}  // namespace rvd::test

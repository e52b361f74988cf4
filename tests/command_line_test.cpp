// The command line: presets, links, options, paths.
#include <filesystem>
#include <iterator>
#include <sstream>

#include "bootdump/BootDump.h"
#include "main/Container.h"
#include "tests/support/phone.h"

namespace rvd::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class CommandLine : public Phone {
  protected:
    void SetUp() override {
        Phone::SetUp();
        *Container::getRvdArgs() = {};
    }

    static int parse(std::vector<std::string> words) {
        words.insert(words.begin(), "rvd");
        std::vector<char*> argv;
        for (std::string& each : words)
            argv.push_back(each.data());
        argv.push_back(nullptr);
        return Container::parseArgs(static_cast<int>(words.size()), argv.data());
    }

    static std::string arguments() {
        const RvdArgs& a = *Container::getRvdArgs();
        std::ostringstream text;
        text << "modem=" << a.modem_type << " boot=" << a.boot_link << " daemon=" << a.daemon
             << " options=" << std::hex << a.options << std::dec << " main=" << a.main_link
             << " stages=" << a.max_stage << a.first_stage << a.boot_stage << a.main_stage
             << " part=" << a.partition_path << " nv=" << a.nv_data_path << " dump=" << a.dump_node
             << " device=" << (a.boot_device ? a.boot_device : "") << " ";
        return text.str();
    }
};

TEST_F(CommandLine, LinksGoByLetter) {
    struct Link {
        char letter;
        int code;
        const char* boot;  // null: refused
        const char* main;
    };
    const Link links[] = {
            {'d', 2, "boot dpram link", ""},
            {'s', 3, "boot spi link", ""},
            {'h', 5, "boot hsic link", ""},
            {'c', 6, "boot C2C link", "main C2C link"},
            {'u', 7, "boot uart link", nullptr},
            {'p', 8, "boot pld link", ""},
            {'m', 9, "boot SHMEM link", "main SHMEM link"},
            {'l', 10, "boot LLI link", "main LLI link"},
            {'e', 11, nullptr, "main PCIE link"},
            {'x', 0, nullptr, nullptr},
            {'D', 0, nullptr, nullptr},
    };
    const auto check = [&](const Link& link, const std::string& use, const char* message,
                           const int32_t& field) {
        Container::getRvdArgs()->boot_link = Container::getRvdArgs()->main_link = 99;
        const int result = parse({"-" + use.substr(0, 1), std::string(1, link.letter) + "z"});
        if (message == nullptr) {
            EXPECT_EQ(result, PARSE_INVALID);
            EXPECT_EQ(field, 99);
            EXPECT_THAT(said(),
                        ElementsAre("parseArgs: ERR! invalid " + use + " link " + link.letter));
            return;
        }
        EXPECT_EQ(result, PARSE_OK);
        EXPECT_EQ(field, link.code);
        const Lines wanted = *message ? Lines{std::string("parseArgs: ") + message} : Lines{};
        EXPECT_EQ(said(), wanted);
    };
    for (const Link& link : links) {
        SCOPED_TRACE(link.letter);
        check(link, "boot", link.boot, Container::getRvdArgs()->boot_link);
        check(link, "main", link.main, Container::getRvdArgs()->main_link);
    }
}

TEST_F(CommandLine, OptionsApplyInTheirOrder) {
    const std::string node(26, 'n');  // the longest that fits behind "/dev/"
    const std::string name(511 - strlen("/dev/block/"), 'p');
    const std::string too_long = "parseArgs: ERR! argument too long: " + name;
    const struct {
        std::string words;
        int result;
        std::string holds;  // among what the arguments say
        const char* line;   // the last one said; null: not looked at
    } cases[] = {
            {"", 0, "modem=0 ", nullptr},
            {"-t tq720", 0,
             "modem=1 boot=9 daemon=0 options=0 main=9 stages=5012 part=/dev/block/by-name/modem "
             "nv=/mnt/vendor/efs/nv_data.bin dump=/dev/umts_ramdump0 device=/dev/umts_boot0 ",
             "parseArgs: TQ720 modem"},
            {"-t vk880xyz", 0,  // five characters count
             "modem=2 boot=3 daemon=0 options=0 main=11 stages=6102 part=/dev/block/by-name/modem "
             "nv=/mnt/vendor/efs/nv_5g_data.bin dump=/dev/nr_ramdump0 device=/dev/nr_boot0 ",
             "parseArgs: VK880 modem"},
            {"-n /mnt/efs", 0, "nv=/mnt/efs/nv_data.bin ", "parseArgs: nv prot file path : "},
            {"-p 12", 0, "part=/dev/block/mmcblk0p12 ",
             "parseArgs: partition path : /dev/block/mmcblk0p12"},
            {"-d", 0, "daemon=1", "parseArgs: Daemon Mode"},
            {"-t tq720 -b u", 0, "modem=1 boot=7", "parseArgs: boot uart link"},
            {"-b u -t tq720", 0, "modem=1 boot=9", "parseArgs: TQ720 modem"},
            {"-t TQ720 -d", 1, "modem=0 boot=0 daemon=0", "parseArgs: Unknown modem"},
            {"-t tq72", 1, "modem=0 ", "parseArgs: Unknown modem"},
            {"-t tq720 -t vk880", 0, "modem=2 boot=3", "parseArgs: VK880 modem"},
            {"-h -d", 2, "daemon=0", nullptr},
            {"-s 1x", 0, "modem=0 boot=0 daemon=0 options=0 ", "parseArgs: SRINFO type: 1"},
            {"-s 2 -d", 1, "daemon=0", "! parseArgs: invalid srinfo type: 2"},
            {"-o rv", 0, "options=100 ", "parseArgs: run with root"},
            {"-o v", 0, "options=200 ", "parseArgs: verify vss"},
            {"-o s", 0, "options=400 ", "parseArgs: reinit vss"},
            {"-o t", 0, "options=2000 ", "parseArgs: EHCI Tegra"},
            {"-o r -o u", 0, "options=10100 ", "parseArgs: Upload Test"},
            {"-d -o x", 0, "daemon=1 options=0 ", "parseArgs: ERR! invalid option x"},
            {"-P modem_b", 0, "part=/dev/block/modem_b ",
             "parseArgs: partition path : /dev/block/modem_b"},
            {"-P " + name, 0, "part=/dev/block/" + name + " ", nullptr},
            {"-P " + name + "p -d", 1, "daemon=0", nullptr},
            {"-p " + name + " -d", 1, "daemon=0", nullptr},
            {"-n " + name + " -d", 1, "daemon=0", too_long.c_str()},
            {"-B " + node, 0, "device=/dev/" + node + " ", nullptr},
            {"-B " + node + "n -d", 1, "daemon=0", nullptr},
            {"-D " + node, 0, "dump=/dev/" + node + " ", nullptr},
            {"-D " + node + "n -d", 1, "daemon=0", nullptr},
            {"-x -d", 0, "daemon=1", "parseArgs: Daemon Mode"},
            {"-d -b", 0, "boot=0", "parseArgs: WARNING! invalid option ?"},
            {"word -d", 0, "daemon=0", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.words);
        *Container::getRvdArgs() = {};
        said();
        std::istringstream words(c.words);
        testing::internal::CaptureStderr();  // the C library's own words about wrong options
        const int result = parse({std::istream_iterator<std::string>(words), {}});
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(result, c.result);
        EXPECT_THAT(arguments(), HasSubstr(c.holds));
        const Lines lines = said();
        if (c.line == nullptr) continue;
        EXPECT_EQ(lines.empty() ? "" : lines.back(), c.line);
    }
}

TEST_F(CommandLine, APathIsLoggedAsGivenAndAsUsed) {
    const struct {
        const char* option;
        Lines lines;
    } cases[] = {
            {"-B", {"set boot_node : x1", "boot_node : /dev/x1"}},
            {"-D", {"set dump_node : x1", "dump_node : /dev/x1"}},
            {"-p", {"set partition number : x1", "partition path : /dev/block/mmcblk0px1"}},
            {"-P", {"set partition number : x1", "partition path : /dev/block/x1"}},
            {"-n",
             {"set nv partition : x1", "nv data file path : x1/nv_data.bin",
              "nv norm file path : ", "nv prot file path : "}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.option);
        EXPECT_EQ(parse({c.option, "x1"}), PARSE_OK);
        Lines wanted;
        for (const std::string& line : c.lines)
            wanted.push_back("parseArgs: " + line);
        EXPECT_EQ(said(), wanted);
    }
}

TEST_F(CommandLine, TestActionsRunAndEndParsing) {
    const std::string test_dir = std::string(kLogDir) + "/test";
    const auto put = [&](const char* name) { write_file(test_dir + "/" + name, "x"); };
    const Lines doomed = {"dmesg_nr_", "x_dmesg_nr_1.log"};
    const Lines kept = {"dmesg_nr.log", "dmesg_umts_1.log", "dumpstate_nr_1"};

    std::filesystem::create_directories(test_dir);
    for (const Lines& names : {doomed, kept})
        for (const std::string& name : names)
            put(name.c_str());
    EXPECT_EQ(parse({"-T", "1", "-d"}), PARSE_TEST);
    EXPECT_EQ(list(test_dir), kept);
    EXPECT_EQ(Container::getRvdArgs()->daemon, 0);

    write_file(std::string(kLogDir) + "/testimony", "x");
    EXPECT_EQ(parse({"-T", "2"}), PARSE_TEST);
    EXPECT_THAT(list(kLogDir), ElementsAre("testimony"));
    said();
    EXPECT_EQ(parse({"-T", "1"}), PARSE_TEST);
    EXPECT_THAT(said(), ElementsAre("remove_logs: remove logs under " + test_dir,
                                    "remove_logs: DIR doesn't exist " + test_dir));

    // Out of 1 to 4 a count is not handed over: the last one stands.
    const std::pair<const char*, const char*> counts[] = {
            {"=1", "1"}, {"=4", "4"}, {"=0", "4"}, {"=5", "4"}};
    for (const auto& [factory, handed_over] : counts) {
        write_file("/efs/factory.prop", factory);
        EXPECT_EQ(parse({"-t", "tq720", "-T", "3"}), PARSE_TEST);
        EXPECT_EQ(read_file("/sys/devices/platform/lnkm/sim/ds_detect"), handed_over);
    }
    said();
    EXPECT_EQ(parse({"-T", "4"}), PARSE_TEST);
    EXPECT_THAT(said(), IsEmpty());
}

}  // namespace
}  // namespace rvd::test

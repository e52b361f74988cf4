// The command line: presets, links, options, paths.
#include "tests/support/phone.h"

namespace rvd::test {
namespace {

class CommandLine : public Phone {
  protected:
    static int parse(const std::string& line) {
        std::istringstream text("rvd " + line);
        std::vector<std::string> words{std::istream_iterator<std::string>(text), {}};
        std::vector<char*> argv;
        for (std::string& each : words)
            argv.push_back(each.data());
        argv.push_back(nullptr);
        testing::internal::CaptureStderr();  // getopt's messages
        const int result = Container::parseArgs(static_cast<int>(words.size()), argv.data());
        testing::internal::GetCapturedStderr();
        return result;
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

TEST_F(CommandLine, AppliesOptionsInOrder) {
    const std::string node(26, 'n');  // the longest that fits after "/dev/"
    const std::string name(511 - strlen("/dev/block/"), 'p');
    const struct {
        std::string words;
        int result;
        std::string holds;  // part of the arguments
        std::string line;   // the last one logged; ".": not checked
    } cases[] = {
            {"-t tq720", 0,
             "modem=1 boot=9 daemon=0 options=0 main=9 stages=5012 part=/dev/block/by-name/modem "
             "nv=/mnt/vendor/efs/nv_data.bin dump=/dev/umts_ramdump0 device=/dev/umts_boot0 ",
             "TQ720 modem"},
            {"-t vk880xyz", 0,  // only five characters count
             "modem=2 boot=3 daemon=0 options=0 main=11 stages=6102 part=/dev/block/by-name/modem "
             "nv=/mnt/vendor/efs/nv_5g_data.bin dump=/dev/nr_ramdump0 device=/dev/nr_boot0 ",
             "VK880 modem"},
            {"-t tq720 -b u", 0, "modem=1 boot=7", "boot uart link"},
            {"-b u -t tq720", 0, "modem=1 boot=9", "TQ720 modem"},
            {"-t TQ720 -d", 1, "modem=0 boot=0 daemon=0", "Unknown modem"},
            {"-t tq72", 1, "modem=0 ", "Unknown modem"},
            {"-t tq720 -t vk880", 0, "modem=2 boot=3", "VK880 modem"},
            {"-d", 0, "daemon=1", "Daemon Mode"},
            {"-h -d", 2, "daemon=0", ""},
            {"-s 1x", 0, "modem=0 boot=0 daemon=0 options=0 ", "SRINFO type: 1"},
            {"-s 2 -d", 1, "daemon=0", "invalid srinfo type: 2"},
            {"-o rv", 0, "options=100 ", "run with root"},
            {"-o v", 0, "options=200 ", "verify vss"},
            {"-o s", 0, "options=400 ", "reinit vss"},
            {"-o t", 0, "options=2000 ", "EHCI Tegra"},
            {"-o r -o u", 0, "options=10100 ", "Upload Test"},
            {"-d -o x", 0, "daemon=1 options=0 ", "ERR! invalid option x"},
            {"-x -d", 0, "daemon=1", "Daemon Mode"},
            {"-d -b", 0, "boot=0", "WARNING! invalid option ?"},
            {"word -d", 0, "daemon=0", ""},
            {"-P " + name, 0, "part=/dev/block/" + name + " ", "."},
            {"-P " + name + "p -d", 1, "daemon=0", "."},
            {"-p " + name + " -d", 1, "daemon=0", "."},
            {"-n " + name + " -d", 1, "daemon=0", "ERR! argument too long: " + name},
            {"-B " + node, 0, "device=/dev/" + node + " ", "."},
            {"-B " + node + "n -d", 1, "daemon=0", "."},
            {"-D " + node, 0, "dump=/dev/" + node + " ", "."},
            {"-D " + node + "n -d", 1, "daemon=0", "."},
            // Links: only the first character counts.
            {"-b dz", 0, "boot=2 ", "boot dpram link"},
            {"-b s", 0, "boot=3 ", "boot spi link"},
            {"-b h", 0, "boot=5 ", "boot hsic link"},
            {"-b c", 0, "boot=6 ", "boot C2C link"},
            {"-b p", 0, "boot=8 ", "boot pld link"},
            {"-b m", 0, "boot=9 ", "boot SHMEM link"},
            {"-b l", 0, "boot=10 ", "boot LLI link"},
            {"-b e -d", 1, "boot=0 daemon=0", "ERR! invalid boot link e"},
            {"-b D -d", 1, "boot=0 daemon=0", "ERR! invalid boot link D"},
            {"-m d", 0, "main=2 ", ""},
            {"-m s", 0, "main=3 ", ""},
            {"-m h", 0, "main=5 ", ""},
            {"-m c", 0, "main=6 ", "main C2C link"},
            {"-m u -d", 1, "daemon=0 options=0 main=0 ", "ERR! invalid main link u"},
            {"-m p", 0, "main=8 ", ""},
            {"-m mz", 0, "main=9 ", "main SHMEM link"},
            {"-m l", 0, "main=10 ", "main LLI link"},
            {"-m e", 0, "main=11 ", "main PCIE link"},
            {"-m x", 1, "main=0 ", "ERR! invalid main link x"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.words);
        *Container::getRvdArgs() = {};
        EXPECT_EQ(parse(c.words), c.result);
        EXPECT_THAT(arguments(), HasSubstr(c.holds));
        const std::string line = last_said();
        const std::string text = line.substr(std::min(line.size(), line.find("parseArgs: ") + 11));
        EXPECT_TRUE(c.line == "." || c.line == text) << text;
    }
}

TEST_F(CommandLine, LogsAPathAsGivenAndAsUsed) {
    const std::pair<const char*, Lines> cases[] = {
            {"-B x1", {"set boot_node : x1", "boot_node : /dev/x1"}},
            {"-D x1", {"set dump_node : x1", "dump_node : /dev/x1"}},
            {"-p x1", {"set partition number : x1", "partition path : /dev/block/mmcblk0px1"}},
            {"-P x1", {"set partition number : x1", "partition path : /dev/block/x1"}},
            {"-n x1",
             {"set nv partition : x1", "nv data file path : x1/nv_data.bin",
              "nv norm file path : ", "nv prot file path : "}},
    };
    for (const auto& [words, lines] : cases) {
        EXPECT_EQ(parse(words), PARSE_OK);
        Lines wanted;
        for (const std::string& line : lines)
            wanted.push_back("parseArgs: " + line);
        EXPECT_EQ(said(), wanted) << words;
    }
}

TEST_F(CommandLine, RunsATestActionAndStopsParsing) {
    const std::string test_dir = std::string(kLogDir) + "/test";
    const Lines kept = {"dmesg_nr.log", "dmesg_umts_1.log", "dumpstate_nr_1"};
    fs::create_directories(test_dir);
    for (const char* name : {"dmesg_nr_", "x_dmesg_nr_1.log"})
        write_file(test_dir + "/" + name, "x");
    for (const std::string& name : kept)
        write_file(test_dir + "/" + name, "x");
    EXPECT_EQ(parse("-T 1 -d"), PARSE_TEST);
    EXPECT_EQ(list(test_dir), kept);
    EXPECT_EQ(Container::getRvdArgs()->daemon, 0);

    write_file(std::string(kLogDir) + "/testimony", "x");
    EXPECT_EQ(parse("-T 2"), PARSE_TEST);
    EXPECT_THAT(list(kLogDir), ElementsAre("testimony"));
    said();
    EXPECT_EQ(parse("-T 1"), PARSE_TEST);
    EXPECT_THAT(said(), ElementsAre("remove_logs: remove logs under " + test_dir,
                                    "remove_logs: DIR doesn't exist " + test_dir));

    // A count outside 1 to 4 is not written: the last one stays.
    const std::pair<const char*, const char*> counts[] = {
            {"=1", "1"}, {"=4", "4"}, {"=0", "4"}, {"=5", "4"}};
    for (const auto& [factory, written] : counts) {
        write_file("/efs/factory.prop", factory);
        EXPECT_EQ(parse("-t tq720 -T 3"), PARSE_TEST);
        EXPECT_EQ(read_file("/sys/devices/platform/lnkm/sim/ds_detect"), written);
    }
    said();
    EXPECT_EQ(parse("-T 4"), PARSE_TEST);
    EXPECT_THAT(said(), IsEmpty());
}

}  // namespace
}  // namespace rvd::test

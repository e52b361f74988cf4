// The plan of a boot, made from the partition's table of contents.
#include "bootdump/BootDumpExt.h"
#include "tests/support/phone.h"

namespace rvd::test {
namespace {

// A table with these entries. The numbers of entry i end in i; "-" is an entry without an image.
std::string table(const std::string& names, uint32_t count, uint32_t m_off) {
    std::string bytes;
    std::istringstream words(names);
    uint32_t i = 0;
    for (std::string name; words >> name; ++i) {
        toc_entry entry = {};
        name.copy(entry.name, sizeof(entry.name));
        entry.b_off = 0x100 + i;
        entry.m_off = i == 0 ? m_off : 0xC0001000 + i;
        entry.size = name == "-" ? 0 : 0x10 + i;
        entry.crc = 0xCC00 + i;
        if (i == 0) entry.toc_count = count;
        bytes.append(reinterpret_cast<const char*>(&entry), sizeof(entry));
    }
    return bytes;
}

class Plan : public Phone {
  protected:
    bool prepare(const char* modem, const std::string& partition, const std::string& options,
                 cp_boot_mode mode) {
        use_modem(modem);
        RvdArgs& args = *Container::getRvdArgs();
        write_file(args.boot_node, "");
        write_file(path("partition"), partition);
        strcpy(args.partition_path, path("partition").c_str());
        strcpy(args.nv_data_path, options.find('e') == std::string::npos ? path("nv").c_str() : "");
        strcpy(args.nv_norm_path,
               options.find('n') == std::string::npos ? "" : path("norm").c_str());
        args.options = options.find('r') == std::string::npos ? 0u : OPT_REINIT_VSS;
        said();
        return Container::getBootDump()->prepare_boot_args(mode);
    }

    // Every row in use: its number, its stage, a letter for each exchange (start, bin, crc, done)
    // and for skip_if_sent (k), and the slot it is read from: partition, nv, NV_NORM, NV_PROT, -
    // for none.
    std::string plan() {
        std::ostringstream text;
        for (unsigned i = 0; i < kDloadStages; ++i) {
            const std_dload_control& row = boot().dload[i];
            if (row.size == 0 && row.stage_start == 0) continue;
            text << i << '=' << row.stage << (row.stage_start ? "s" : "")
                 << (row.send_bin ? "b" : "") << (row.send_crc ? "c" : "")
                 << (row.stage_done ? "d" : "") << (row.skip_if_sent ? "k" : "");
            const char* slots = "?pnNP";
            const int32_t* slot = std::find(boot().fd, boot().fd + 5, row.fd);
            text << (row.fd < 0 ? '-' : slots[slot - boot().fd]) << ' ';
        }
        return text.str();
    }
};

const std::string kThirteen = "TOC A1 A2 A3 NV A5 A6 A7 A8 A9 A10 A11 A12";
const std::string kSixteen = kThirteen + " A13 A14 A15";
constexpr char kTooMany[] = "ERR! invalid TOC: more images than the plan has stages";
constexpr char kIntegrated[] = "tq720", kExternal[] = "vk880";

TEST_F(Plan, HasAStageForEachImageInTheOrderOfTheTable) {
    const char* five = "TOC BOOT MAIN VSS NV";
    const char* ends = "TOC BOOT MAIN NV OFFSET";
    const struct {
        const char* modem;
        std::string names;
        uint32_t count;
        uint32_t m_off;
        const char* options;  // e: no NV path, n: a path for NV_NORM, r: reload VSS, d: for a dump
        const char* plan;     // or, if the table is refused, the last line
    } cases[] = {
            {kIntegrated, five, 5, 1, "", "0=0p 1=1p 2=2p 3=3kp 4=4n "},
            {kIntegrated, five, 5, 1, "r", "0=0p 1=1p 2=2p 3=3p 4=4n "},
            {kIntegrated, five, 5, 1, "e", "0=0p 1=1p 2=2p "},
            {kIntegrated, five, 5, 1, "d", "0=0p 1=1p "},
            {kIntegrated, five, 5, 1, "ed", "0=0p 1=1p "},
            {kIntegrated, "TOC BOOT MAIN NV", 1, 0, "", "1=1p 2=2p 3=3n "},
            {kIntegrated, five, 1, 0, "", "ERR! invalid TOC : There is no NV"},
            {kIntegrated, "TOC BOOT MAIN NV", 1, 0, "d", "1=1p "},
            {kIntegrated, "TOC VSSX nv NV", 4, 1, "", "0=0p 1=1p 2=2p 3=3n "},
            {kIntegrated, "TOC NV", 2, 1, "", "0=0p 1=1n "},
            {kIntegrated, "TOC NV NV", 3, 1, "", "0=0p 1=1n 2=2n "},
            {kIntegrated, "TOC NV NV_NORM NV_PROT", 4, 1, "", "0=0p 1=1n 2=2- 3=3- "},
            {kIntegrated, "TOC NV NV_NORM", 3, 1, "n", "0=0p 1=1n 2=2N "},
            {kIntegrated, "TOC NV_NORM", 2, 1, "n", "0=0p 1=1N "},
            {kIntegrated, kSixteen, 13, 1, "", "11=11p 12=12p "},
            {kIntegrated, kSixteen, 14, 1, "", kTooMany},
            {kIntegrated, kSixteen, 16, 1, "", kTooMany},
            {kIntegrated, kSixteen, 0, 1, "", kTooMany},
            {kIntegrated, kSixteen, 16, 1, "e", "0=0p 1=1p 2=2p "},
            {kIntegrated, kSixteen, 16, 1, "d", "0=0p 1=1p "},
            {kIntegrated, kThirteen + " - - -", 16, 1, "", "11=11p 12=12p "},
            {kIntegrated, kThirteen, 0, 1, "", "11=11p 12=12p "},
            {kIntegrated, kSixteen, 17, 1, "", "ERR! invalid TOC: Total TOC count is 17"},
            {kIntegrated, kSixteen, ~0u, 1, "", "ERR! invalid TOC: Total TOC count is -1"},
            {kIntegrated, five, 2, 0, "", "ERR! invalid TOC : No info for TOC verification"},
            {kIntegrated, five, 0, 0, "", "ERR! invalid TOC : No info for TOC verification"},
            {kIntegrated, five, 4, 1, "", "ERR! invalid TOC : There is no NV"},
            {kIntegrated, "TOCX BOOT MAIN VSS NV", 5, 1, "", "ERR! invalid TOC: No TOC"},
            {kIntegrated, "", 0, 0, "", "ERR! invalid TOC: No TOC"},
            {kExternal, ends, 5, 0, "", "0=0cdp 1=1sbdp 2=2sbcdp 3=3sbdn 4=15s- "},
            {kExternal, ends, 1, 0, "", "0=0cdp 1=1sbdp 2=2sbcdp 3=3sbdn 4=15s- "},
            {kExternal, ends, 4, 0, "", "0=0cdp 1=1sbdp 2=2sbcdp 3=3sbdn 4=15s- "},
            {kExternal, "TOC BOOT OFFSET NV MAIN", 5, 0, "", "0=0cdp 1=1sbdp 2=15s- "},
            {kExternal, "TOC BOOT X NV_PROT NV_NORM NV", 6, 0, "n",
             "0=0cdp 1=1sbdp 2=2sbdp 3=3sbd- 4=4sbdN 5=5sbdn 6=15s- "},
            {kExternal, "TOC BOOT NV_NORM NV NV", 5, 0, "",
             "0=0cdp 1=1sbdp 2=2sbd- 3=3sbdn 4=4sbdn 5=15s- "},
            {kExternal, ends, 3, 0, "e", "0=0cdp 1=1sbdp 2=2sbcdp 3=15s- "},
            {kExternal, ends, 3, 0, "d", "0=0cdp 1=1sbdp 2=2sbcdp 3=15s- "},
            {kExternal, kSixteen, 1, 0, "", "4=4sbdn 5=5sbdp 6=15s- "},
            {kExternal, kSixteen, 12, 0, "", "11=11sbdp 12=15s- "},
            {kExternal, kSixteen, 13, 0, "", "11=11sbdp 12=12sbdp "},
            {kExternal, kSixteen, 14, 0, "", kTooMany},
            {kExternal, kSixteen, 16, 0, "", kTooMany},
            {kExternal, kSixteen, 16, 0, "d", "11=11sbdp 12=12sbdp "},
            {kExternal, kThirteen + " OFFSET", 14, 0, "", "11=11sbdp 12=12sbdp "},
            {kExternal, kThirteen + " A13 OFFSET", 15, 0, "", kTooMany},
            {kExternal, "TOC OFFSET A2 A3 A4 A5 A6 A7 A8 A9 A10 A11 A12 A13 A14 NV", 16, 0, "",
             "1=15s- "},
            {kExternal, ends, 0, 0, "d", "0=15s- "},
            {kExternal, kSixteen, 17, 0, "", "ERR! invalid TOC: Total TOC count is 17"},
            {kExternal, kSixteen, ~0u, 0, "", "ERR! invalid TOC: Total TOC count is -1"},
            {kExternal, ends, 3, 0, "", "ERR! invalid TOC : There is no NV"},
            {kExternal, ends, 0, 0, "", "ERR! invalid TOC : There is no NV"},
            {kExternal, "BOOT MAIN", 2, 0, "", "ERR! invalid TOC: No TOC"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.names + " of " + std::to_string(c.count) + c.options);
        const cp_boot_mode mode = strchr(c.options, 'd') ? CP_BOOT_MODE_DUMP : CP_BOOT_MODE_NORMAL;
        const bool accepted = prepare(c.modem, table(c.names, c.count, c.m_off), c.options, mode);
        EXPECT_EQ(accepted, c.plan[0] != 'E');
        EXPECT_THAT(accepted ? plan() : last_said(), EndsWith(c.plan));
        EXPECT_EQ(accepted, boot().fd[BOOT_FD_PARTITION] >= 0);
        Container::getBootDump()->std_boot_close_args();
    }
}

TEST_F(Plan, SendsTheEndOfTheDownloadAfterAFullPlan) {
    for (const char* end : {" OFFSET", ""}) {
        const uint32_t count = *end != '\0' ? 14 : 13;
        ASSERT_TRUE(prepare("vk880", table(kThirteen + end, count, 0), "", CP_BOOT_MODE_NORMAL));
        std::fill(boot().dload, boot().dload + kDloadStages, std_dload_control{});
        close(boot().fd[BOOT_FD_NODE]);
        const Modem modem(&boot().fd[BOOT_FD_NODE], *end != '\0' ? ">9F00 <AF00" : "");
        auto& external = static_cast<BootDumpExt&>(*Container::getBootDump());
        EXPECT_EQ(external.std_boot_load_cp_images(), 0);
        close(std::exchange(boot().fd[BOOT_FD_PARTITION], -1));
        close(std::exchange(boot().fd[BOOT_FD_NV], -1));
    }
}

TEST_F(Plan, CopiesTheNumbersOfEachEntry) {
    const auto numbers = [&](unsigned row) {
        const std_dload_control& r = boot().dload[row];
        return std::vector<uint32_t>{r.b_off, r.m_off, r.size, r.crc};
    };
    ASSERT_TRUE(prepare("tq720", table("TOC BOOT MAIN VSS NV", 5, 0x80000007), "",
                        CP_BOOT_MODE_NORMAL));
    EXPECT_THAT(said(), Contains("build_std_dload_control: stage=3, name:VSS b_off=0x00000103, "
                                 "m_offset=0x00001003 b_size=0x00000013"));
    EXPECT_THAT(numbers(0), ElementsAre(0x100, 7, 0x10, 0xCC00));
    EXPECT_THAT(numbers(4), ElementsAre(0x104, 0x1004, 0x14, 0xCC04));
    EXPECT_EQ(boot().has_vss, 1u);
    EXPECT_EQ(read_file(path("nv")).size(), 0x14u);
    Container::getBootDump()->std_boot_close_args();

    ASSERT_TRUE(prepare("vk880", table("TOC BOOT MAIN NV", 4, 0), "", CP_BOOT_MODE_NORMAL));
    EXPECT_THAT(numbers(0), ElementsAre(0x101, 0, 0x11, 0));
    EXPECT_THAT(numbers(1), ElementsAre(0x100, 0, 0x10, 0));
    EXPECT_THAT(numbers(2), ElementsAre(0x102, 0, 0x12, 0xCC02));
    EXPECT_THAT(numbers(3), ElementsAre(0x103, 0, 0x13, 0xCC03));
}

TEST_F(Plan, ReadsNothingBeyondTheTable) {
    const std::string whole = table("TOC NV ABCDEFGHIJKL", 3, 1);
    ASSERT_TRUE(prepare("tq720", whole + std::string(4096, 'x'), "", CP_BOOT_MODE_NORMAL));
    EXPECT_THAT(said(), Contains("prepare_boot_args: toc[2].name = ABCDEFGHIJKL, b_off=0x00000102, "
                                 "m_off=0xc0001002, size=0x00000012"));
    EXPECT_EQ(boot().fd[BOOT_FD_NV_NORM], -1);
    Container::getBootDump()->std_boot_close_args();

    // The partition ends within the table: missing entries are zero.
    ASSERT_TRUE(prepare("tq720", whole.substr(0, 64), "", CP_BOOT_MODE_NORMAL));
    EXPECT_EQ(boot().dload[2].size, 0u);
    Container::getBootDump()->std_boot_close_args();
    EXPECT_FALSE(prepare("tq720", whole.substr(0, 3), "", CP_BOOT_MODE_NORMAL));
    EXPECT_EQ(last_said(), "prepare_boot_args: ERR! invalid TOC : No info for TOC verification");
    EXPECT_FALSE(prepare("tq720", whole.substr(0, 2), "", CP_BOOT_MODE_NORMAL));
    EXPECT_EQ(last_said(), "prepare_boot_args: ERR! invalid TOC: No TOC");
}

}  // namespace
}  // namespace rvd::test

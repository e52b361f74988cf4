// Parses the command line in order; a later option overrides an earlier one.
#include <stdio.h>
#include <unistd.h>

#include "log/Log.h"
#include "main/Container.h"
#include "util/Text.h"
#include "util/Util.h"

namespace rvd {

namespace {

constexpr char kTag[] = "parseArgs";

// "+": with every C library, parsing stops at the first argument that is not an option.
constexpr char kOptions[] =
        "+"
        "hdt:s:b:m:n:o:p:P:B:D:T:";

constexpr char kUsage[] =
        "Usage: %s [OPTION]\n"
        " -h Usage\n"
        " -d Daemon mode\n"
        " -t modem Type [hdr41x, zqn55x, etc.]\n"
        " -b Boot link [d, h, s, u, p, c, m, l]\n"
        " \td(DPRAM) h(HSIC) s(SPI) u(UART) p(PLD) c(C2C) m(shared Memory) l(LLI)\n"
        " -m Main link [d, h, s, p, c, m, l, e]\n"
        " \td(DPRAM) h(HSIC) s(SPI) p(PLD) c(C2C) m(shared Memory) l(LLI) e(PCIE)\n"
        " -o Options [u, t, r]\n"
        " \tu(Upload test) t(Tegra EHCI) r(run with root)\n"
        " \tv(verify vss) s(reinit vss)\n"
        " -p Partition# of CP binary\n"
        " -B Boot device\n"
        " -D Dump device\n";

// A null message: the link is refused for that use. An empty one: accepted without a message.
struct LinkLetter {
    char letter;
    int32_t code;
    const char* boot_message;
    const char* main_message;
};

constexpr LinkLetter kLinks[] = {
        {'d', LINK_DPRAM, "boot dpram link\n", ""},
        {'s', LINK_SPI, "boot spi link\n", ""},
        {'h', LINK_HSIC, "boot hsic link\n", ""},
        {'c', LINK_C2C, "boot C2C link\n", "main C2C link\n"},
        {'u', LINK_UART, "boot uart link\n", nullptr},
        {'p', LINK_PLD, "boot pld link\n", ""},
        {'m', LINK_SHMEM, "boot SHMEM link\n", "main SHMEM link\n"},
        {'l', LINK_LLI, "boot LLI link\n", "main LLI link\n"},
        {'e', LINK_PCIE, nullptr, "main PCIE link\n"},
};

struct OptionLetter {
    char letter;
    uint32_t bit;
    const char* message;
};

constexpr OptionLetter kOptionLetters[] = {
        {'r', OPT_ROOT, "run with root\n"},      {'v', OPT_VERIFY_VSS, "verify vss\n"},
        {'s', OPT_REINIT_VSS, "reinit vss\n"},   {'t', OPT_EHCI_TEGRA, "EHCI Tegra\n"},
        {'u', OPT_UPLOAD_TEST, "Upload Test\n"},
};

bool set_link(char letter, const char* LinkLetter::*message, int32_t* code) {
    for (const LinkLetter& link : kLinks) {
        if (link.letter != letter || link.*message == nullptr) continue;
        if (*(link.*message) != '\0') Log::info(kTag, "%s", link.*message);
        *code = link.code;
        return true;
    }
    return false;
}

bool set_boot_link(const char* arg) {
    if (set_link(arg[0], &LinkLetter::boot_message, &Container::getRvdArgs()->boot_link)) {
        return true;
    }
    Log::info(kTag, "ERR! invalid boot link %c\n", arg[0]);
    return false;
}

bool set_main_link(const char* arg) {
    if (set_link(arg[0], &LinkLetter::main_message, &Container::getRvdArgs()->main_link)) {
        return true;
    }
    Log::info(kTag, "ERR! invalid main link %c\n", arg[0]);
    return false;
}

void set_option(const char* arg) {
    for (const OptionLetter& option : kOptionLetters) {
        if (option.letter != arg[0]) continue;
        Log::info(kTag, "%s", option.message);
        Container::getRvdArgs()->options |= option.bit;
        return;
    }
    Log::info(kTag, "ERR! invalid option %c\n", arg[0]);
}

bool check_srinfo_type(const char* arg) {
    Log::info(kTag, "SRINFO type: %c\n", arg[0]);
    if (arg[0] == '1') return true;
    Log::error(kTag, "invalid srinfo type: %c\n", arg[0]);
    return false;
}

bool check_fits(bool fits, const char* arg) {
    if (!fits) Log::info(kTag, "ERR! argument too long: %s\n", arg);
    return fits;
}

bool set_nv_directory(const char* arg) {
    RvdArgs* args = Container::getRvdArgs();
    if (!check_fits(format_text(args->nv_data_path, "%s/nv_data.bin", arg), arg)) return false;
    Log::info(kTag, "set nv partition : %s\n", arg);
    Log::info(kTag, "nv data file path : %s\n", args->nv_data_path);
    Log::info(kTag, "nv norm file path : %s\n", args->nv_norm_path);
    Log::info(kTag, "nv prot file path : %s\n", args->nv_prot_path);
    return true;
}

bool report_partition(bool fits, const char* arg) {
    if (!check_fits(fits, arg)) return false;
    Log::info(kTag, "set partition number : %s\n", arg);
    Log::info(kTag, "partition path : %s\n", Container::getRvdArgs()->partition_path);
    return true;
}

bool set_partition_number(const char* arg) {
    RvdArgs* args = Container::getRvdArgs();
    return report_partition(format_text(args->partition_path, "/dev/block/mmcblk0p%s", arg), arg);
}

bool set_partition_name(const char* arg) {
    RvdArgs* args = Container::getRvdArgs();
    return report_partition(format_text(args->partition_path, "/dev/block/%s", arg), arg);
}

bool set_boot_node(const char* arg) {
    RvdArgs* args = Container::getRvdArgs();
    if (!check_fits(format_text(args->boot_node, "/dev/%s", arg), arg)) return false;
    args->boot_device = args->boot_node;
    Log::info(kTag, "set boot_node : %s\n", arg);
    Log::info(kTag, "boot_node : %s\n", args->boot_node);
    return true;
}

bool set_dump_node(const char* arg) {
    RvdArgs* args = Container::getRvdArgs();
    if (!check_fits(format_text(args->dump_node, "/dev/%s", arg), arg)) return false;
    Log::info(kTag, "set dump_node : %s\n", arg);
    Log::info(kTag, "dump_node : %s\n", args->dump_node);
    return true;
}

int accepted(bool valid) {
    return valid ? PARSE_OK : PARSE_INVALID;
}

}  // namespace

void Container::printUsage(const char* program) {
    printf(kUsage, program);
}

int Container::parseArgs(int argc, char** argv) {
    optind = 0;
    for (int option; (option = getopt(argc, argv, kOptions)) != -1;) {
        int result = PARSE_OK;
        switch (option) {
            case 'h':
                return PARSE_USAGE;
            case 'd':
                getRvdArgs()->daemon = 1;
                Log::info(kTag, "Daemon Mode\n");
                break;
            case 't':
                result = accepted(select_modem(optarg));
                break;
            case 's':
                result = accepted(check_srinfo_type(optarg));
                break;
            case 'b':
                result = accepted(set_boot_link(optarg));
                break;
            case 'm':
                result = accepted(set_main_link(optarg));
                break;
            case 'n':
                result = accepted(set_nv_directory(optarg));
                break;
            case 'o':
                set_option(optarg);
                break;
            case 'p':
                result = accepted(set_partition_number(optarg));
                break;
            case 'P':
                result = accepted(set_partition_name(optarg));
                break;
            case 'B':
                result = accepted(set_boot_node(optarg));
                break;
            case 'D':
                result = accepted(set_dump_node(optarg));
                break;
            case 'T':
                Util::rvd_do_test(optarg);
                return PARSE_TEST;
            default:
                Log::info(kTag, "WARNING! invalid option %c\n", option);
                break;
        }
        if (result != PARSE_OK) return result;
    }
    return PARSE_OK;
}

}  // namespace rvd

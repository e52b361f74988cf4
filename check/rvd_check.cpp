// rvd-check: reports what keeps the daemon from working on this phone.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <new>

#include "check/capture.h"
#include "check/driver.h"
#include "check/phone.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/ProtocolVelo.h"
#include "util/Property.h"
#include "util/Util.h"

using namespace rvd;
using namespace rvd::check;

namespace {

constexpr int kHeld = 0, kNotHeld = 1, kRefused = 2;

constexpr char kUsage[] =
        "Usage: rvd-check [--json] [--driver [--yes]] OPTION...\n"
        "Checks everything that the daemon needs, as the user it runs as, and changes nothing.\n"
        "Prints a line for each check: OK, or NO with what to do. OPTION... are those of the\n"
        "daemon, as in its .rc file.\n"
        " --json    print all of it as JSON\n"
        " --driver  then boot and dump the modem to test its driver; asks first\n"
        " --yes     do not ask\n";

struct Choice {
    bool json = false, driver = false, yes = false, help = false;
    int words = 1;  // of the command line: the program's name and its own options
};

Choice read_choice(int argc, char** argv) {
    Choice choice;
    for (; choice.words < argc; ++choice.words) {
        const char* word = argv[choice.words];
        if (strcmp(word, "--json") == 0) {
            choice.json = true;
        } else if (strcmp(word, "--driver") == 0) {
            choice.driver = true;
        } else if (strcmp(word, "--yes") == 0) {
            choice.yes = true;
        } else {
            choice.help = strcmp(word, "--help") == 0;
            break;
        }
    }
    return choice;
}

// Only root can open the kernel log for writing.
void check_kernel_log_node(Report& report) {
    const ScopedFd node(open("/dev/kmsg", O_RDWR | O_CLOEXEC));
    report.add("/dev/kmsg", node.valid(),
               node.valid() ? "opens" : text("%s; start as root", strerror(errno)));
}

void check_debug_level(Report& report, Capture& lines) {
    Log::check_debug_cp_opt();
    Log::check_debug_level();
    std::string from;
    for (const std::string& line : lines.take()) {
        if (line.find(": find str ") == std::string::npos)
            from += (from.empty() ? "" : "; ") + line;
    }
    report.add("debug level", debug_level > 0,
               debug_level > 0 ? from
                               : from + ": nothing of a crash is saved; boot with "
                                        "androidboot.debug_level=0x4945");
    if (cp_debug != CP_DEBUG_NONE)
        report.no(
                "debug option",
                text("%d: set by persist.vendor.rvd.debug_cp_opt or kro_debug.cp=, it changes how "
                     "the modem is booted and reset",
                     cp_debug));
}

void check_driver(Report& report, Capture& lines, bool asked) {
    const Property service("init.svc.rvd", "");
    if (strcmp(service.text(), "running") == 0)
        return report.no("driver test", "not run: the daemon is running; stop rvd first");
    if (asked || agreed(kDriverTest, stdin)) check_driver_contract(report, lines);
}

}  // namespace

int main(int argc, char** argv) {
    const Choice choice = read_choice(argc, argv);
    if (choice.help) return fputs(kUsage, stdout) < 0 ? kRefused : kHeld;
    umask(002);
    Capture lines;
    Container::setProtocol(new (std::nothrow) ProtocolVelo);
    argv[choice.words - 1] = argv[0];
    const int parsed = Container::parseArgs(argc - choice.words + 1, argv + choice.words - 1);
    const RvdArgs* args = Container::getRvdArgs();
    const std::string said = joined(lines.take());
    if (parsed != PARSE_OK || args->modem_type == MODEM_TYPE_NONE) {
        const char* why = parsed == PARSE_TEST ? "test actions are not run here" : said.c_str();
        fprintf(stderr, "rvd-check: the daemon's options: %s\n%s", why, kUsage);
        return kRefused;
    }
    Report report(choice.json);
    check_kernel_log_node(report);
    check_debug_level(report, lines);
    if ((args->options & OPT_ROOT) == 0) Util::switch_user();
    const bool bootable = check_phone(report, lines);
    if (choice.driver && bootable) check_driver(report, lines, choice.yes);
    if (choice.driver && !bootable) report.no("driver test", "not run: fix the lines above first");
    report.finish();
    return report.all_ok() ? kHeld : kNotHeld;
}

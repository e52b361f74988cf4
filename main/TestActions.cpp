// The test actions of option -T.
#include "bootdump/BootDump.h"
#include "log/Log.h"
#include "main/Container.h"
#include "util/Util.h"

namespace rvd {

int Util::rvd_do_test(const char* arg) {
    if (arg == nullptr) return 0;
    switch (arg[0]) {
        case '1':
            Log::remove_logs(0, Log::kTestDir, "nr");
            return 0;
        case '2':
            return Log::remove_directory(Log::kTestDir);
        case '3':
            if (BootDump* modem = Container::getBootDump()) modem->set_sim_configuration();
            return 0;
        default:
            return 0;
    }
}

}  // namespace rvd

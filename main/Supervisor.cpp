#include "main/Supervisor.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>

#include "bootdump/BootDump.h"
#include "log/Log.h"
#include "main/Container.h"
#include "main/Shutdown.h"
#include "protocol/ProtocolVelo.h"
#include "util/Property.h"
#include "util/ScopedFd.h"
#include "util/Text.h"
#include "util/Util.h"

namespace rvd {

namespace {

constexpr char kTag[] = "main";
constexpr char kNoResetBooted[] = "vendor.rvd.cpboot";
constexpr unsigned kUploadTestDelay = 5;  // s
constexpr unsigned kPassPause = 1;        // s

void end_pass() {
    if (cp_debug == CP_DEBUG_HANG) {
        Log::info(kTag, "hang rvd for debugging\n");
        park();
    }
    sleep(kPassPause);
}

void test_upload() {
    Log::info(kTag, "\n\n ---- upload ----\n\n");
    sleep(kUploadTestDelay);
    if (Container::getBootDump()->dump() < 0) Log::info(kTag, "start boot fail\n");
    end_pass();
}

// Whether the debug options allow this pass to boot the modem.
bool boot_allowed() {
    if (debug_level == 0) return true;
    if (cp_debug == CP_DEBUG_NOBOOT) {
        Log::info(kTag, "CP_DEBUG NOBOOT\n");
        return false;
    }
    if (cp_debug == CP_DEBUG_NORESET) {
        if (Property(kNoResetBooted, "").is_set()) {
            Log::info(kTag, "CP_DEBUG NORESET\n");
            return false;
        }
        Log::info(kTag, "CP_DEBUG NORESET prop set\n");
        property_set(kNoResetBooted, "1");
    }
    return true;
}

void save_logs_of_reset() {
    if (debug_level == 0 || !Property(kResetDone, "").is_set()) return;
    Log::save_in_background("cp_boot_%s", Container::getRvdArgs()->node_prefix);
    property_set(kResetDone, "0");
}

int boot_modem() {
    const RvdArgs* args = Container::getRvdArgs();
    Log::info(kTag, "Call boot start\n");
    Log::info(kTag, "Modem type = %d\n", args->modem_type);
    Log::info(kTag, "Boot link = %d\n", args->boot_link);
    Log::info(kTag, "Main link = %d\n", args->main_link);
    return Container::getBootDump()->boot();
}

// The state of a modem that failed to boot, through a new descriptor: the boot closed its own.
int get_modem_state() {
    ScopedFd node(open(Container::getRvdArgs()->boot_node, O_RDWR | O_CLOEXEC));
    if (!node.valid()) {
        Log::error("get_modem_state", "boot node open fail\n");
        return -ENODEV;
    }
    const int state = ioctl(node.get(), IOCTL_GET_CP_STATUS, nullptr);
    node.reset();
    Log::info("get_modem_state", "modem_status: %d (2)\n", state);
    return state;
}

bool modem_crashed_while_booting() {
    return get_modem_state() == MODEM_STATE_CRASH ||
           get_modem_state() == MODEM_STATE_CRASH_WATCHDOG;
}

void handle_boot_failure() {
    Log::info(kTag, "start boot fail\n");
    if (debug_level == 0 || cp_debug != CP_DEBUG_NONE || !modem_crashed_while_booting()) return;
    Log::info(kTag, "CP Crash when CP booting..\n");
    BootDump* modem = Container::getBootDump();
    const int storage = Log::create_log_directory(Log::get_log_dir());
    if (storage == -ENOSPC) {
        Log::info(kTag, "forced upload\n");
        format_text(Container::getRvdArgs()->crash_reason, "Not enough freespace");
        modem->upload();
    }
    if (storage == 0 || storage == -ENOSPC) modem->dump();
}

}  // namespace

std::optional<int> start_up(int argc, char** argv) {
    umask(002);
    Log::kprintf_init();
    Log::check_debug_cp_opt();
    Log::check_debug_level();
    Log::update_log_dir();
    Log::info(kTag, "Start Radio Vault Daemon v3 (RVD) %s\n", Log::get_rvd_version());
    Container::setProtocol(new (std::nothrow) ProtocolVelo);
    if (Container::getProtocol() == nullptr) return -EINVAL;

    switch (Container::parseArgs(argc, argv)) {
        case PARSE_OK:
            break;
        case PARSE_TEST:
            return 0;
        case PARSE_USAGE:
            Container::printUsage(argv[0]);
            return 0;
        default:
            return -EINVAL;
    }

    const RvdArgs* args = Container::getRvdArgs();
    if (args->modem_type == MODEM_TYPE_NONE) {
        Log::info(kTag, "Invaild modem type %d\n", args->modem_type);
        park();
    }
    if (args->options & OPT_UPLOAD_TEST) {
        test_upload();
    } else if (args->options & OPT_ROOT) {
        Log::info(kTag, "Start with root\n");
    } else {
        Util::switch_user();
    }
    return std::nullopt;
}

std::optional<int> run_pass() {
    park_on_device_shutdown(kTag, shutdown_moment::BETWEEN_PASSES);
    if (boot_allowed()) {
        save_logs_of_reset();
        if (boot_modem() < 0) {
            handle_boot_failure();
            end_pass();
            return std::nullopt;
        }
    }
    Log::info(kTag, "Boot up process done!!!\n");
    if (!Container::getRvdArgs()->daemon) {
        Log::info("status_loop", "Cp boot Oneshot\n");
        Log::kprintf_deinit();
        return 0;
    }
    watch_modem();
    end_pass();
    return std::nullopt;
}

}  // namespace rvd

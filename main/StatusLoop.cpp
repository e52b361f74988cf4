// Updates the properties after a boot, then watches the modem until an event ends the pass. The
// driver signals a change of the modem's state as POLLHUP on the boot node.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <climits>

#include "bootdump/BootDump.h"
#include "log/Log.h"
#include "main/Container.h"
#include "main/Shutdown.h"
#include "main/Supervisor.h"
#include "util/Property.h"
#include "util/ScopedFd.h"
#include "util/Text.h"

namespace rvd {

namespace {

constexpr char kTag[] = "status_loop";

constexpr char kBootCount[] = "vendor.rvd.cp_reset";
constexpr char kBootDone[] = "vendor.rvd.boot_done";

constexpr int kSilentResetWait = 50000;   // ms
constexpr int kNoTimeout = -1;            // ms
constexpr unsigned kRildRestartWait = 3;  // s
constexpr unsigned kAfterPowerOff = 27;   // s
constexpr unsigned kDumpRetryPause = 1;   // s
constexpr unsigned kIdlePause = 1;        // s
constexpr int kDumpRetries = 6;

bool in_normal_operation() {
    return debug_level != 0 && cp_debug == CP_DEBUG_NONE;
}

void handle_missing_node(const char* path, int result) {
    Log::info(kTag, "%s open fail, err = %d\n", path, result);
    if (Container::getBootDump()->dump() < 0) Log::info(kTag, "start_dump fail\n");
}

void count_boot() {
    const Property count(kBootCount, "0");
    long boots = strtol(count.text(), nullptr, 10);
    if (boots < LONG_MAX) ++boots;
    char text[kNameSize];
    format_text(text, "%ld", boots);
    property_set(kBootCount, text);
}

void record_boot() {
    count_boot();
    if (in_normal_operation()) {
        if (Property(kBootDone, "0").is_set()) {
            Log::save_in_background("cp_boot_done_%s", Container::getRvdArgs()->node_prefix);
        }
        property_set(kResetDone, "1");
    }
    property_set(kBootDone, "1");
}

// Returns the poll events of the node, 0 after a timeout.
short wait_for_hang_up(int node, int timeout) {
    pollfd entry = {node, POLLHUP, 0};
    poll(&entry, 1, timeout);
    return entry.revents;
}

int wait_for_event(int node) {
    short events = wait_for_hang_up(node, kNoTimeout);
    if (!(events & POLLHUP)) {
        Log::info(kTag, "ERR! poll without POLLHUP (revents 0x%X)\n",
                  static_cast<unsigned>(events));
    }
    // POLLERR and POLLNVAL are level-triggered: without the pause this loop would spin.
    while (!(events & POLLHUP)) {
        sleep(kIdlePause);
        events = wait_for_hang_up(node, kNoTimeout);
    }
    return ioctl(node, IOCTL_GET_CP_STATUS, nullptr);
}

void force_kernel_panic(const char* reason) {
    const int result = Container::getBootDump()->set_kernel_panic(reason);
    if (result != 0) Log::info(kTag, "set_kernel_panic() error %d\n", result);
}

void dump_with_retries() {
    BootDump* modem = Container::getBootDump();
    for (int retries = 0; modem->dump() < 0; ++retries) {
        Log::info(kTag, "start_dump fail\n");
        if (retries == kDumpRetries) return;
        sleep(kDumpRetryPause);
    }
}

void handle_crash() {
    Log::check_debug_level();
    if (cp_debug == CP_DEBUG_KERNEL_PANIC) force_kernel_panic("Force a kernel panic");
    if (debug_level == 0) {
        Log::info(kTag, "DBG_LOW, wait onrestart by rild\n");
        sleep(kRildRestartWait);
        return;
    }
    if (cp_debug != CP_DEBUG_NONE) return;

    Log::info(kTag, "CP status CRASH\n");
    const int storage = Log::create_log_directory(Log::get_log_dir());
    if (storage == -ENOSPC) {
        force_kernel_panic("Not enough freespace");
    } else if (storage != 0) {
        return;
    }
    dump_with_retries();
    Log::info(kTag, "CP status RESET\n");
}

void handle_reset(int node) {
    if (cp_debug == CP_DEBUG_KERNEL_PANIC) force_kernel_panic("Force a kernel panic");
    if (cp_debug != CP_DEBUG_NONE) return;

    Log::info(kTag, "STATE_CRASH_RESET, wait onrestart by rild\n");
    sleep(kRildRestartWait);
    const int result = ioctl(node, IOCTL_POWER_OFF, nullptr);
    if (result != 0) Log::info(kTag, "cp off ioctl fail err=%d\n", result);
    Log::info(kTag, "RILD dosenot restart for 3sec, save logs\n\n");
    if (debug_level != 0) {
        Log::save_in_background("rvd_only_%s", Container::getRvdArgs()->node_prefix);
    }
    sleep(kAfterPowerOff);
}

// Returns after the event that ends the pass; an unknown state does not end it.
void handle_events(int node) {
    Log::info(kTag, "Wait event from modem %d\n", Container::getRvdArgs()->modem_type);
    for (;;) {
        const int state = wait_for_event(node);
        park_on_device_shutdown(kTag, shutdown_moment::AFTER_EVENT);
        Log::info(kTag, "get event %d\n", state);
        switch (state) {
            case MODEM_STATE_CRASH:
            case MODEM_STATE_CRASH_WATCHDOG:
                return handle_crash();
            case MODEM_STATE_CRASH_RESET:
                return handle_reset(node);
            default:
                Log::info(kTag, "unknown Modem status\n");
                // POLLHUP is level-triggered and lasts as long as the state.
                sleep(kIdlePause);
                break;
        }
    }
}

void watch_node() {
    const RvdArgs* args = Container::getRvdArgs();
    Log::info(kTag, "CP status_loop start (modem = %d)\n", args->modem_type);
    const ScopedFd node(open(args->boot_device, O_RDWR | O_CLOEXEC));
    if (!node.valid()) {
        Log::error(kTag, "%s open fail\n", args->boot_device);
        if (debug_level == 0) return;
        if (cp_debug == CP_DEBUG_NONE) return handle_missing_node(args->boot_device, node.get());
    }
    record_boot();
    if (debug_level != 0 && cp_debug == CP_DEBUG_SILENT_RESET) {
        Log::info(kTag, "CP Silent reset repeat\n");
        wait_for_hang_up(node.get(), kSilentResetWait);
        return;
    }
    // Without a node no event could end the wait.
    if (node.valid()) handle_events(node.get());
}

}  // namespace

void watch_modem() {
    watch_node();
    Log::info(kTag, "status loop exit\n");
}

}  // namespace rvd

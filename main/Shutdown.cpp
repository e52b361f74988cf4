#include "main/Shutdown.h"

#include <unistd.h>

#include "bootdump/BootDump.h"
#include "log/Log.h"
#include "main/Container.h"
#include "util/Property.h"

namespace rvd {

namespace {

constexpr char kShutdownRequested[] = "sys.shutdown.requested";
constexpr char kDeviceOffAnswer[] = "vendor.rvd.deviceOffRes";
constexpr unsigned kParkingStep = 255;  // s

}  // namespace

void park() {
    for (;;)
        sleep(kParkingStep);
}

void park_on_device_shutdown(const char* tag, shutdown_moment moment) {
    const bool after_event = moment == shutdown_moment::AFTER_EVENT;
    const Property requested(kShutdownRequested, "0");
    if (after_event) Log::info(tag, "deviceOff = %s\n", requested.text());
    if (!requested.is_set()) return;
    Log::info(tag, "deviceOff = %s\n", requested.text());
    if (after_event) Log::info(tag, "shutdown\n");
    Container::getBootDump()->shutdown();
    if (after_event) property_set(kDeviceOffAnswer, "1");
    park();
}

}  // namespace rvd

#include "main/DeviceState.h"

#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include "bootdump/BootDump.h"
#include "log/Log.h"
#include "main/Container.h"

namespace rvd {

namespace {

constexpr unsigned kParkingStep = 255;  // s

}  // namespace

void park() {
    for (;;)
        sleep(kParkingStep);
}

void save_logs_in_background(const char* format, ...) {
    char name[64];
    va_list values;
    va_start(values, format);
    vsnprintf(name, sizeof(name), format, values);
    va_end(values);
    Log::save_logs_thread(Log::kSaveStamped, name);
}

void force_kernel_panic(const char* tag, const char* reason) {
    const int result = Container::getBootDump()->set_kernel_panic(reason);
    if (result != 0) Log::info(tag, "set_kernel_panic() error %d\n", result);
}

}  // namespace rvd

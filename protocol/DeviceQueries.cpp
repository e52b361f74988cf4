// Device queries of the controllers: SIM count, carrier, reboot, protected NV data.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "log/Log.h"
#include "protocol/ProtocolVelo.h"
#include "util/Property.h"
#include "util/ScopedFd.h"
#include "util/Text.h"

namespace rvd {

namespace {

constexpr char kFactoryFile[] = "/efs/factory.prop";
constexpr char kSalesCode[] = "ro.vtc.sales_code";
constexpr char kPowerControl[] = "sys.powerctl";

}  // namespace

int Protocol::std_reboot_system(const char*) {
    return 0;
}

bool Protocol::check_vtc_sales_code() {
    return false;
}

bool Protocol::getNvProtFd(cp_boot_mode, char*, int, int*) {
    return true;
}

int ProtocolVelo::get_factory_prop() {
    constexpr char kTag[] = "get_factory_prop";
    const ScopedFd file(open(kFactoryFile, O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        Log::info(kTag, "%s open fail(not support)\n", kFactoryFile);
        return -EINVAL;
    }
    char text[128] = {};
    const ssize_t count = read(file.get(), text, sizeof(text));
    if (count < 0) {
        Log::error(kTag, "%s read fail\n", kFactoryFile);
        return -1;
    }
    const size_t length = static_cast<size_t>(count);
    const void* sign = memchr(text, '=', length);
    if (sign == nullptr) {
        Log::info(kTag, "can't find token!\n");
        return -EINVAL;
    }
    const size_t next = static_cast<size_t>(static_cast<const char*>(sign) - text) + 1;
    const int digit = next < length ? static_cast<unsigned char>(text[next]) : 0;
    const int sims = digit - '0';
    Log::info(kTag, "sim_count: %d\n", sims);
    return sims;
}

bool ProtocolVelo::check_vtc_sales_code() {
    const Property code(kSalesCode, "");
    Log::info("check_vtc_sales_code", "sales_code:%s\n", code.text());
    return strcmp(code.text(), "TMB") == 0 || strcmp(code.text(), "VZW") == 0;
}

int ProtocolVelo::std_reboot_system(const char* reason) {
    constexpr char kTag[] = "std_reboot_system";
    char value[PROPERTY_VALUE_MAX];
    // A truncated reason would be a different one.
    const int result =
            format_text(value, "reboot,%s", reason) ? property_set(kPowerControl, value) : -EINVAL;
    if (result < 0) Log::info(kTag, "ERR! failed to setprop [sys.powerctl](%s)\n", value);
    return result;
}

}  // namespace rvd

// The debug level and the debug option, from the kernel command line and a property.
#include <stdlib.h>
#include <string.h>

#include <cutils/properties.h>

#include "log/Log.h"
#include "util/Util.h"

namespace rvd {

std::atomic<int> debug_level{0};
int cp_debug = CP_DEBUG_NONE;

namespace {

constexpr char kDebugLevelKey[] = "androidboot.debug_level=";
constexpr char kKernelLevelKey[] = "kro_debug.level=";
constexpr char kKernelEnableKey[] = "kro_debug.enable=";
constexpr char kForceUploadKey[] = "androidboot.force_upload=";
constexpr char kKernelCpKey[] = "kro_debug.cp=";
constexpr char kCpOptionProperty[] = "persist.vendor.rvd.debug_cp_opt";

// One key of the kernel command line. get_cmdline_str modifies its buffer, so each key has its own.
class CmdlineKey {
  public:
    explicit CmdlineKey(const char* key)
        : word_(Util::get_cmdline_str(cmdline_, sizeof(cmdline_), key)), key_length_(strlen(key)) {}
    CmdlineKey(const CmdlineKey&) = delete;
    CmdlineKey& operator=(const CmdlineKey&) = delete;

    explicit operator bool() const { return word_ != nullptr; }
    const char* word() const { return word_; }
    const char* value() const { return word_ + key_length_; }

  private:
    char cmdline_[1024] = {};
    const char* word_;
    size_t key_length_;
};

// The codes are two ASCII letters, little-endian: "LO", "EI", "HI".
int level_of_code(unsigned long code) {
    switch (code) {
        case 0x4F4C:
            return 0;
        case 0x4945:
            return 1;
        case 0x4948:
            return 2;
        default:
            return -1;
    }
}

bool level_from_boot_loader(int* level) {
    const CmdlineKey key(kDebugLevelKey);
    if (!key) return false;
    const int named = level_of_code(strtoul(key.value(), nullptr, 16));
    if (named < 0) {
        Log::info("check_debug_level", "%s, debug level undefined\n", key.word());
        return false;
    }
    *level = named;
    Log::info("check_debug_level", "%s, %d\n", key.word(), named);
    return true;
}

void raise_level_by(const CmdlineKey& key, int* level) {
    if (key.value()[0] == '0') return;
    *level = 1;
    Log::info("check_debug_level", "%s, %d\n", key.word(), 1);
}

void level_from_kernel(int* level) {
    const CmdlineKey key(kKernelLevelKey);
    if (key) {
        raise_level_by(key, level);
    } else if (const CmdlineKey enable(kKernelEnableKey); enable) {
        raise_level_by(enable, level);
    }
}

void level_from_forced_upload(int* level) {
    const CmdlineKey key(kForceUploadKey);
    if (!key) return;
    Log::info("check_debug_level", "force_upload = %s\n", key.value());
    if (strcmp(key.value(), "0x5") != 0) return;
    *level = 1;
    Log::info("check_debug_level", "force_upload on!\n");
}

}  // namespace

void Log::check_debug_level() {
    // Stored once: a saving thread must not see a level that a later key overrides.
    int level = debug_level;
    if (!level_from_boot_loader(&level)) level_from_kernel(&level);
    if (level == 0) level_from_forced_upload(&level);
    debug_level = level;
    info("check_debug_level", "debug level=%d, cp_debug=%d\n", level, cp_debug);
}

void Log::check_debug_cp_opt() {
    const int option = property_get_int32(kCpOptionProperty, -1);
    if (option >= 0) {
        info("check_debug_cp_opt", "cp_debug=%d overwritten by prop=%d\n", cp_debug, option);
        cp_debug = option;
        return;
    }
    const CmdlineKey key(kKernelCpKey);
    if (!key) return;
    cp_debug = static_cast<unsigned char>(key.value()[0]) - '0';
    info("check_debug_cp_opt", "%s, %d\n", key.word(), cp_debug);
}

}  // namespace rvd

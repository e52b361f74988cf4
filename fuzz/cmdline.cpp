// The kernel command line and the properties that steer the daemon.
#include <sys/mman.h>

#include <cutils/properties.h>

#include "fuzz/support.h"
#include "log/Log.h"
#include "util/Util.h"

using namespace rvd;
using namespace rvd::fuzz;

namespace {

// The word that a lookup must find, or "".
std::string word_of(std::string line, const std::string& key) {
    if (!line.empty() && line.back() == '\n') line.pop_back();
    line = line.c_str();
    for (Input words(line); !words.empty();) {
        const std::string_view word = words.take_until(' ');
        if (word.empty()) break;
        if (word.substr(0, key.size()) == key) return std::string(word);
    }
    return "";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const std::string_view property = input.take_until('\n');
    const std::string key(input.take_until('\n'));
    const unsigned room = 1 + input.take<uint8_t>();
    const std::string line(input.rest());
    const Run run(&input);
    test::write_file(test::kCmdline, line);
    set_property("persist.vendor.rvd.debug_cp_opt", property);

    char value[PROPERTY_VALUE_MAX];
    const int length = property_get("persist.vendor.rvd.debug_cp_opt", value, "none");
    require(length >= 0 && strnlen(value, sizeof(value)) == static_cast<size_t>(length),
            "a property's value is as long as it says");

    debug_level = 0;
    cp_debug = CP_DEBUG_NONE;
    Log::check_debug_cp_opt();
    Log::check_debug_level();
    require(debug_level >= 0 && debug_level <= 2, "the debug level is one of three");
    const int option = property_get_int32("persist.vendor.rvd.debug_cp_opt", -1);
    require(option < 0 || cp_debug == option, "the property decides");

    std::string buffer(room, '?');
    const char* word = Util::get_cmdline_str(buffer.data(), room, key.c_str());
    const std::string expected = word_of(line.substr(0, room - 1), key.c_str());
    require(word == nullptr ? expected.empty() : word == expected, "the word is found");
    return 0;
}

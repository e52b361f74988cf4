// The words that steer the daemon: the kernel command line, a property, and the argument vector.
// One word a line; the first is the property, the second a key, the third the kernel's line.
#include <unistd.h>

#include <vector>

#include <cutils/properties.h>

#include "fuzz/support.h"
#include "log/Log.h"
#include "main/Container.h"
#include "util/Util.h"

using namespace rvd;
using namespace rvd::fuzz;

namespace {

constexpr char kOption[] = "persist.vendor.rvd.debug_cp_opt";

// The word that a lookup must find, or "".
std::string word_of(std::string line, const std::string& key) {
    line = line.c_str();
    while (!line.empty()) {
        const std::string word = line.substr(0, line.find(' '));
        if (word.empty() || word.compare(0, key.size(), key) == 0) return word;
        line.erase(0, word.size() + 1);
    }
    return "";
}

void check_debug(const std::string& property, const std::string& key, const std::string& line) {
    test::write_file(test::kCmdline, line);
    test::set_property(kOption, property);
    debug_level = 0;
    cp_debug = CP_DEBUG_NONE;
    Log::check_debug_cp_opt();
    Log::check_debug_level();
    require(debug_level >= 0 && debug_level <= 2, "the debug level is one of three");
    const int option = property_get_int32(kOption, -1);
    require(option < 0 || cp_debug == option, "the property decides");

    std::string buffer(1 + line.size() % 256, '?');
    const char* word =
            Util::get_cmdline_str(buffer.data(), static_cast<unsigned>(buffer.size()), key.c_str());
    const std::string expected = word_of(line.substr(0, buffer.size() - 1), key.c_str());
    require(word == nullptr ? expected.empty() : word == expected, "the word is found");
}

void check_arguments(std::vector<std::string> words) {
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    RvdArgs& args = *Container::getRvdArgs();
    args = {};
    opterr = 0;
    const int result = Container::parseArgs(static_cast<int>(words.size()), argv.data());
    require(result >= PARSE_OK && result <= PARSE_TEST, "a result has a meaning");
    require(is_text(args.boot_node) && is_text(args.dump_node) && is_text(args.partition_path) &&
                    is_text(args.nv_data_path) && args.nv_norm_path[0] == '\0' &&
                    args.nv_prot_path[0] == '\0',
            "paths are terminated");
    require(result == PARSE_INVALID ||
                    args.boot_device == (args.boot_node[0] != '\0' ? args.boot_node : nullptr),
            "the boot device is the boot node");
    require((args.modem_type != MODEM_TYPE_NONE) == (args.modem_name != nullptr) &&
                    (args.modem_name != nullptr) == (args.node_prefix != nullptr),
            "a preset is applied whole");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kMaxWords = 24;
    Input input(data, size);
    const std::string property = input.take_until('\n');
    const std::string key = input.take_until('\n');
    const std::string line = input.take_until('\n');
    std::vector<std::string> words = {"rvd"};
    while (!input.empty() && words.size() < kMaxWords)
        words.push_back(input.take_until('\n'));
    const Run run(false);
    check_debug(property, key, line);
    check_arguments(words);
    return 0;
}

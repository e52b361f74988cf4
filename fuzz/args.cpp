// The argument vector, one word a line.
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <vector>

#include "fuzz/support.h"
#include "main/Container.h"

using namespace rvd;
using namespace rvd::fuzz;

namespace {

// Each modem that is named makes new objects, which live until the process ends. Here they live
// until others have taken their place.
std::vector<void*> objects;
bool in_daemon;

void release_replaced() {
    const auto replaced = [](void* object) {
        if (object == Container::getBootDump() || object == Container::getSrinfo()) return false;
        free(object);
        return true;
    };
    objects.erase(std::remove_if(objects.begin(), objects.end(), replaced), objects.end());
}

}  // namespace

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    if (!in_daemon) return operator new(size);
    void* object = malloc(size);
    objects.push_back(object);
    return object;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kMaxWords = 24;
    std::vector<std::string> words = {"rvd"};
    for (Input input(data, size); !input.empty() && words.size() < kMaxWords;)
        words.emplace_back(input.take_until('\n'));
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);

    Input none("");
    const Run run(&none);
    RvdArgs& args = *Container::getRvdArgs();
    args = {};
    opterr = 0;
    in_daemon = true;
    const int result = Container::parseArgs(static_cast<int>(words.size()), argv.data());
    in_daemon = false;
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
    release_replaced();
    return 0;
}

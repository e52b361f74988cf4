// Scenario files of the virtual phone: read, or refused with a place and a reason. Whatever one
// puts into the phone's directories stays in them.
#include "lab/scenario/scenario.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "lab/phone/phone.h"

using namespace rvd::lab;

namespace {

namespace fs = std::filesystem;

void require(bool holds) {
    if (!holds) abort();
}

// A directory of this process alone.
fs::path make_base() {
    std::string name = fs::temp_directory_path() / "rvd-fuzz-XXXXXX";
    require(mkdtemp(name.data()) != nullptr);
    return name;
}

// Puts the files into a root three directories deep, with a file beside it in each.
void put_files(const Scenario& scenario) {
    static const fs::path base = make_base(), root = base / "a" / "b" / "root";
    for (const char* place : {"data", "dev", "efs", "mnt", "sys", "run/rvd/properties"})
        fs::create_directories(root / place);
    for (const char* place : {"", "a", "a/b"})
        write_file(base / place / "outside", "untouched");
    try {
        put_scenario_files(scenario, root, geteuid());
    } catch (const std::exception&) {  // one file in another's place
    }
    fs::remove_all(root);
    size_t entries = 0;
    for (const auto& entry : fs::recursive_directory_iterator(base)) {
        ++entries;
        require(!entry.is_regular_file() || read_file(entry.path()) == "untouched");
    }
    require(entries == 5);
    fs::remove_all(base / "a");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    try {
        const std::string text(reinterpret_cast<const char*>(data), size);
        for (const Scenario& scenario : parse_scenarios(text, "input")) {
            require(scenario.modem == "tq720" || scenario.modem == "vk880");
            require(!scenario.args.empty() && !scenario.firmware.entries.empty());
            require(!scenario.dump.steps.empty() && scenario.driver.regions.size() == 6);
            put_files(scenario);
        }
    } catch (const Error& refusal) {
        require(std::string(refusal.what()).rfind("input", 0) == 0);
    }
    return 0;
}

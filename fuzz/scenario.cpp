// Scenario files of the virtual phone: read, or refused with a place and a reason. Whatever one
// puts into the phone's directories stays in them.
#include "lab/scenario/scenario.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "lab/phone/phone.h"

using namespace rvd::lab;

namespace {

namespace fs = std::filesystem;

void require(bool holds) {
    if (!holds) abort();
}

// A phone's root three directories deep, with a file beside it in each.
class Surroundings {
  public:
    Surroundings() {
        std::string name = fs::temp_directory_path() / "rvd-fuzz-XXXXXX";
        require(mkdtemp(name.data()) != nullptr);
        base_ = name;
        root_ = base_ / "a" / "b" / "root";
        fs::create_directories(root_);
        for (const char* place : {"", "a", "a/b"})
            write_file(base_ / place / "outside", "untouched");
    }
    ~Surroundings() { fs::remove_all(base_); }

    void put(const Scenario& scenario) {
        for (const char* place : {"data", "dev", "efs", "mnt", "sys"})
            fs::create_directory(root_ / place);
        fs::create_directories(root_ / "run/rvd/properties");
        try {
            put_scenario_files(scenario, Tree(root_), geteuid());
        } catch (const Unable&) {  // one file in another's place
        }
        fs::remove_all(root_);
        check();
        fs::create_directory(root_);
    }

  private:
    void check() const {
        size_t entries = 0;
        for (const auto& entry : fs::recursive_directory_iterator(base_)) {
            entries++;
            if (entry.is_regular_file()) require(read_file(entry.path()) == "untouched");
        }
        require(entries == 5);
    }

    fs::path base_, root_;
};

void check(const Scenario& scenario) {
    require(scenario.modem == "tq720" || scenario.modem == "vk880");
    require(!scenario.args.empty() && !scenario.firmware.entries.empty());
    require(!scenario.dump.steps.empty() && scenario.driver.regions.size() == 6);
    static Surroundings surroundings;
    surroundings.put(scenario);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr char kName[] = "input";
    try {
        const std::string text(reinterpret_cast<const char*>(data), size);
        for (const Scenario& scenario : parse_scenarios(text, kName))
            check(scenario);
    } catch (const Unable& refusal) {
        require(strncmp(refusal.what(), kName, strlen(kName)) == 0);
    }
    return 0;
}

// Scenario files of the virtual phone: read, or refused with a place and a reason.
#include "lab/scenario/scenario.h"

#include <cstdlib>
#include <cstring>

using namespace rvd::lab;

namespace {

void require(bool holds) {
    if (!holds) abort();
}

void check(const Scenario& scenario) {
    require(scenario.modem == "tq720" || scenario.modem == "vk880");
    require(!scenario.args.empty() && !scenario.firmware.entries.empty());
    require(!scenario.dump.steps.empty() && scenario.driver.regions.size() >= 6);
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

// A log of silent-reset records.
#include "report/parse/records.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const rvd::report::Records found =
            rvd::report::read_records({reinterpret_cast<const char*>(data), size});
    for (const rvd::report::Record& record : found.records) {
        // Each record says what is wrong with it, or is as long as its rows.
        if (record.text().size() > record.data.size()) __builtin_trap();
        if (!record.damage.empty() && found.damage.empty()) __builtin_trap();
    }
    return 0;
}

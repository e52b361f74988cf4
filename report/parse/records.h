// The files of silent-reset records: the log of hexadecimal rows, and the text that waits.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "report/evidence/names.h"

namespace rvd::report {

// A log longer than this is put aside before the next record.
constexpr int64_t kRecordsRotation = 65536;

// What a record of `size` bytes takes in the log.
constexpr uint64_t record_length(uint64_t size) {
    constexpr uint64_t kHeader = sizeof("[2020-10-01 12:31:06]\n") - 1;
    constexpr uint64_t kRow =
            sizeof("0000:00000000 00000000 00000000 00000000 ................\n") - 1;
    return kHeader + (size + 15) / 16 * kRow + 1;
}

// One entry of the log. The driver's header is 16 bytes that nobody but the modem interprets; the
// text ends with the first brace.
struct Record {
    DeviceTime time = -1;
    uint64_t offset = 0;  // in the file
    std::string data;     // rows, put together; whole rows, so up to 15 bytes longer than fetched
    std::string damage;   // what is wrong with it, and at which offset; empty: nothing

    std::string header() const { return data.substr(0, 16); }
    std::string text() const;
};

struct Records {
    std::vector<Record> records;
    std::string damage;  // the first there is
};

Records read_records(std::string_view text);

}  // namespace rvd::report

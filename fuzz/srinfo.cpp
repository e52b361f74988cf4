// Silent-reset records from the driver, and what the files of earlier ones have become meanwhile.
#include "srinfo/Srinfo.h"

#include <unistd.h>

#include <algorithm>

#include "fuzz/support.h"
#include "main/Container.h"

using namespace rvd;
using namespace rvd::fuzz;

namespace {

constexpr char kLast[] = "/data/vendor/log/rvd/err/last_sr_info_nr";
constexpr char kLog[] = "/data/vendor/log/rvd/sr_info_nr";
constexpr char kPrevious[] = "/data/vendor/log/rvd/.sr_info_nr.bak";
constexpr int kNode = -1;
constexpr size_t kRotationSize = kSrinfoLogLimit;
constexpr size_t kRow = 16, kRowLine = 58, kHeaderAndEnd = 23;

// What a record's text must look like in the file that waits for the next boot.
std::string text_of(const srinfo_buf& record) {
    const size_t size = std::min<size_t>(record.len, sizeof(record.data));
    std::string text(record.data + 16, sizeof(record.data) - 16);
    text.resize(sizeof(record.data) + 1);
    return text.substr(0, std::min(text.find('}'), size) + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const uint8_t choice = input.take<uint8_t>();
    *Container::getRvdArgs() = vk880().args;
    for (const char* path : {kLast, kLog, kPrevious})
        unlink(path);
    if (choice & 0x01) test::write_file(kLog, std::string(kRotationSize + (choice & 0x02), 'x'));
    if (choice & 0x04) test::write_file(kPrevious, "older");
    if (choice & 0x08) test::write_file(kLast, std::string(input.take_bytes(choice)));

    Input answers(input.rest());
    const srinfo_buf record = Input(answers).take<srinfo_buf>();
    const std::string log_before = test::read_file(kLog);
    const Run run(&answers);
    Srinfo* srinfo = vk880().srinfo;
    srinfo->store_srinfo(kNode);
    const std::string last = test::read_file(kLast);
    const std::string log = test::read_file(kLog);
    if (Run::granted_last(IOCTL_GET_SRINFO) && memcmp(record.data + 18, "JVER", 4) == 0) {
        const size_t rows = (std::min<size_t>(record.len, sizeof(record.data)) + kRow - 1) / kRow;
        const size_t kept = log_before.size() <= kRotationSize ? log_before.size() : 0;
        require(last == text_of(record), "the record's text waits for the next boot");
        require(log.size() == kept + kHeaderAndEnd + rows * kRowLine, "the log has the record");
    } else {
        require(log == log_before, "without a record the log stays");
    }

    srinfo->restore_srinfo(kNode);
    const bool handed_back = Run::granted_last(IOCTL_SET_SRINFO);
    require((access(kLast, F_OK) != 0) == (handed_back || last.empty()) || last.empty(),
            "a record waits until the driver took it");
    return 0;
}

// The crash reason: one sentence that says who crashed the modem and why.
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>

#include "bootdump/StdArgs.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/Protocol.h"
#include "util/Text.h"

namespace rvd {

void Protocol::make_cp_crash_reason(char* reason) {
    constexpr char kTag[] = "make_cp_crash_reason";
    char(&sentence)[kCrashReasonSize] = Container::getRvdArgs()->crash_reason;
    memset(sentence, 0, sizeof(sentence));
    cp_crash_reason record = {};
    if (ioctl(node_of(UPLOAD), IOCTL_GET_CP_CRASH_REASON, &record) < 0) {
        Log::error(kTag, "ERR! IOCTL_GET_CP_CRASH_REASON fail\n");
        return;
    }
    record.text[sizeof(record.text) - 1] = '\0';
    Log::info(kTag, "reason owner:%d\n", record.owner);
    switch (crash_origin_of(record.owner)) {
        case crash_origin::CP:
            format_text(sentence, ": CP Crash by CP - %s", reason);
            break;
        case crash_origin::RIL:
            format_text(sentence, ": CP Crash by RIL - %s", record.text);
            break;
        case crash_origin::USER:
            format_text(sentence, ": CP Crash by USER - %s", record.text);
            break;
        case crash_origin::LNKM:
            format_text(sentence, ": CP Crash by LNKM - %s", record.text);
            break;
        case crash_origin::CP_WATCHDOG:
            format_text(sentence, ": CP Crash by CP - CP WDOG Reset");
            break;
        case crash_origin::CLD:
            format_text(sentence, ": CP Crash by CLD - %s", record.text);
            break;
        case crash_origin::UNKNOWN:
            format_text(sentence, ": CP Crash by (%d)", record.owner);
            break;
    }
    Log::info(kTag, "CP CRASH%s\n", sentence);
}

}  // namespace rvd

// Words and frames of the link: a crash dump, an image's word and a memory region, from a boot
// loader that sends what a script says and then hangs up. The script: 'n' and a number begin the
// next step of so many frames, 'f' and a size send its next frame (bit 15 set: half of it only),
// '.' ends it, and any other byte sends so many of the bytes behind it.
#include "protocol/link.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "bootdump/BootDump.h"
#include "fuzz/support.h"
#include "main/Container.h"
#include "protocol/Protocol.h"
#include "util/ScopedFd.h"

using namespace rvd;
using namespace rvd::fuzz;

namespace {

// The payloads of all packets, one behind the other: what a dump file may hold a piece of.
std::string payloads;

void send_packet(int link, std::string_view bytes) {
    if (send(link, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < int{UDL_HEADER})
        return;
    Input header(bytes.substr(offsetof(udl_frame, len)));
    payloads += bytes.substr(UDL_HEADER, header.take<uint32_t>());
}

void send_script(int link, Input* script) {
    udl_frame frame = {udl_response(UDL_STAGE_DUMP, 0), 0, 0, 0, {}};
    while (!script->empty()) {
        const uint8_t kind = script->take<uint8_t>();
        if (kind == '.') return;
        if (kind == 'n') {
            frame = {frame.cmd + 1, script->take<uint8_t>(), 0, 0, {}};
        } else if (kind == 'f') {
            const uint16_t size = script->take<uint16_t>();
            frame.len = size & 0x0FFF;
            memset(frame.data, static_cast<int>(++frame.curr_frame), sizeof(frame.data));
            const size_t whole = std::min<size_t>(UDL_HEADER + frame.len, UDL_MTU);
            send_packet(link, {reinterpret_cast<char*>(&frame), size & 0x8000 ? whole / 2 : whole});
        } else {
            send_packet(link, script->take_bytes(kind));
        }
    }
}

std::string content_of(int fd) {
    std::string content(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
    require(pread(fd, content.data(), content.size(), 0) >= 0, "a crash file can be read");
    return content;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const Run run(&input);
    BootDump* modem = vk880().controller;
    RvdArgs& args = *Container::getRvdArgs();
    args = vk880().args;

    int link[2];
    require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, link) == 0, "there is a link");
    const ScopedFd loader(link[1]);
    payloads.clear();
    send_script(loader.get(), &input);
    shutdown(loader.get(), SHUT_WR);

    modem->std_dump_init_args();
    std_dump_args& dump = *modem->getStdDump();
    dump.fd[DUMP_FD_NODE] = link[0];
    for (const unsigned slot : {DUMP_FD_LOG, DUMP_FD_INFO, DUMP_FD_DUMP})
        dump.fd[slot] = memfd_create("crash file", 0);
    modem->getStdBoot()->fd[BOOT_FD_NODE] = dup(link[0]);

    const int result = modem->std_dump_receive_cp_dump();
    const std::string saved = content_of(dump.fd[DUMP_FD_DUMP]);
    require(payloads.find(saved) != std::string::npos, "what is saved is what was sent");
    require(is_text(dump.reason) && is_text(args.crash_reason), "reasons are terminated");
    if (result == 0) {
        require(saved.size() == dump.dump_size, "a dump that succeeded is complete");
        require(content_of(dump.fd[DUMP_FD_INFO]) == args.crash_reason, "the sentence is saved");
    }
    Container::getProtocol()->std_udl_req_resp(DOWNLOAD, UDL_REQ, UDL_RESP);
    modem->get_log_dump("shmem", CP_LOG_DUMP_SHMEM);
    modem->std_dump_write_versions();
    modem->std_dump_trigger_kernel_panic();
    modem->std_dump_close_args();
    modem->std_boot_close_args();
    return 0;
}

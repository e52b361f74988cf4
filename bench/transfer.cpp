// A crash dump into a file, and an image to the boot loader, by the daemon's own code and by the
// barest loop that could do the same.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "bench/support.h"
#include "bootdump/BootDump.h"
#include "main/Container.h"
#include "protocol/Protocol.h"
#include "protocol/link.h"

namespace rvd::bench {

namespace {

constexpr char kReason[] = "prefetch abort";
constexpr uint32_t kStage = 2;

bool send_word(int link, uint32_t word) {
    return write(link, &word, sizeof(word)) == sizeof(word);
}

bool receive(int link, void* data, size_t size) {
    pollfd node = {link, POLLIN, 0};
    return poll(&node, 1, 30000) == 1 && read(link, data, size) > 0;
}

bool exchange(int link, uint32_t stage, uint32_t command) {
    uint32_t word = 0;
    return send_word(link, udl_request(stage, command)) && receive(link, &word, sizeof(word)) &&
           word == udl_response(stage, command);
}

}  // namespace

uint64_t Upload::frames() const {
    return uint64_t{steps} * udl_frames(step_size);
}

void Upload::play_loader(int link) const {
    const udl_dump_info info = {steps * step_size, steps, sizeof(kReason)};
    udl_frame frame = {0, udl_frames(step_size), 0, 0, {}};
    for (uint32_t word = 0; read(link, &word, sizeof(word)) > 0;) {
        const uint32_t command = word & 0xFF;
        if (command == UDL_CMD_START || (command == UDL_CMD_DONE && steps < UDL_CMD_DONE))
            send_word(link, udl_response(UDL_STAGE_DUMP, command));
        if (command == UDL_CMD_START) {
            send(link, &info, sizeof(info), 0);
            send(link, kReason, sizeof(kReason), 0);
        }
        if (command == 0 || command > steps) continue;
        frame.cmd = udl_response(UDL_STAGE_DUMP, command);
        uint32_t left = step_size;
        for (frame.curr_frame = 1; left > 0; ++frame.curr_frame, left -= frame.len) {
            frame.len = std::min(left, UDL_MSS);
            send(link, &frame, UDL_HEADER + frame.len, 0);
        }
    }
}

bool Upload::by_daemon(const Phone&, int dump_fd, int info_fd) const {
    std_dump_args* dump = Container::getStdDump();
    dump->reason[0] = '\0';
    dump->fd[DUMP_FD_INFO] = info_fd;
    dump->fd[DUMP_FD_DUMP] = dump_fd;
    return Container::getProtocol()->std_dump_receive_cp_dump() == 0;
}

bool Upload::by_bare_loop(const Phone& phone, int dump_fd) const {
    const int link = phone.link();
    udl_frame frame;
    if (!exchange(link, UDL_STAGE_DUMP, UDL_CMD_START) || !receive(link, &frame, sizeof(frame)) ||
        !receive(link, &frame, sizeof(frame))) {
        return false;
    }
    for (uint32_t step = 1; step <= steps; ++step) {
        if (!send_word(link, udl_request(UDL_STAGE_DUMP, step))) return false;
        do {
            pollfd node = {link, POLLIN, 0};
            if (poll(&node, 1, 30000) != 1 || read(link, &frame, sizeof(frame)) < 0 ||
                write(dump_fd, frame.data, frame.len) < 0)
                return false;
        } while (frame.curr_frame < frame.num_frames);
    }
    return fsync(dump_fd) == 0 && exchange(link, UDL_STAGE_DUMP, UDL_CMD_DONE);
}

uint64_t Download::frames() const {
    return udl_frames(size);
}

void Download::play_loader(int link) {
    udl_frame frame;
    while (read(link, &frame, sizeof(frame)) > 0) {
        if (frame.curr_frame == frame.num_frames)
            send_word(link, udl_response(kStage, UDL_CMD_BIN));
    }
}

bool Download::by_daemon(int image_fd) const {
    return Container::getProtocol()->std_dl_send_bin(kStage, image_fd, 0, size) == 0;
}

bool Download::by_bare_loop(const Phone& phone, int image_fd) const {
    udl_frame frame = {udl_request(kStage, UDL_CMD_BIN), udl_frames(size), 0, 0, {}};
    lseek(image_fd, 0, SEEK_SET);
    for (uint32_t left = size; left > 0; left -= frame.len) {
        ++frame.curr_frame;
        frame.len = std::min(left, UDL_MSS);
        if (read(image_fd, frame.data, frame.len) < 0 ||
            write(phone.link(), &frame, UDL_HEADER + frame.len) < 0)
            return false;
    }
    uint32_t word = 0;
    return receive(phone.link(), &word, sizeof(word));
}

namespace {

constexpr uint32_t kMiB = 1 << 20;

// Neighbouring turns differ by a tenth or more on a machine with other work, so it takes many.
void upload(benchmark::State& state) {
    constexpr uint32_t kSteps = 4;
    const uint32_t size = static_cast<uint32_t>(state.range(0)) * kMiB;
    const Upload work = {kSteps, size / kSteps};
    const Phone phone([&](int link) { work.play_loader(link); });
    const ScopedFd dump = scratch_file();
    const ScopedFd info = scratch_file();
    const auto empty = [&] {
        return ftruncate(dump.get(), 0) == 0 && lseek(dump.get(), 0, 0) == 0;
    };
    Duel(state, size, empty)
            .run([&] { return work.by_daemon(phone, dump.get(), info.get()); },
                 [&] { return work.by_bare_loop(phone, dump.get()); });
}
BENCHMARK(upload)->Arg(16)->UseManualTime()->Iterations(101);
BENCHMARK(upload)->Arg(64)->UseManualTime()->Iterations(61);
BENCHMARK(upload)->Arg(256)->UseManualTime()->Iterations(31);

void download(benchmark::State& state) {
    const uint32_t size = static_cast<uint32_t>(state.range(0)) * kMiB;
    const Download work = {size};
    const Phone phone(Download::play_loader);
    const ScopedFd image = scratch_file();
    if (posix_fallocate(image.get(), 0, size) != 0) return state.SkipWithError("no image");
    Duel(state, size, [] { return true; })
            .run([&] { return work.by_daemon(image.get()); },
                 [&] { return work.by_bare_loop(phone, image.get()); });
}
BENCHMARK(download)->Arg(16)->UseManualTime()->Iterations(101);
BENCHMARK(download)->Arg(64)->UseManualTime()->Iterations(61);
BENCHMARK(download)->Arg(256)->UseManualTime()->Iterations(31);

}  // namespace

}  // namespace rvd::bench

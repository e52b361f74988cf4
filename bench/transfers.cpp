// A crash dump into a file and an image to the boot loader, over a SEQPACKET pair whose other end
// is a process of its own; the integrated modem's images in chunks through the driver; and an NV
// file that is made.
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "bench/duel.h"
#include "bootdump/BootDumpModap.h"
#include "main/Container.h"
#include "protocol/Protocol.h"
#include "protocol/link.h"
#include "util/Heap.h"
#include "util/Util.h"

namespace rvd::bench {

namespace {

constexpr char kReason[] = "prefetch abort";
constexpr uint32_t kStage = 2;
constexpr uint32_t kSteps = 4;

// The two ends of a link share no core where there are two.
void pin(unsigned core) {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(core, &cores);
    sched_setaffinity(0, sizeof(cores), &cores);
}

// The external modem with both nodes on one end of a link; `loader` plays the other end.
class Phone {
  public:
    explicit Phone(const std::function<void(int link)>& loader) {
        set_up_daemon();
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) abort();
        child_ = fork();
        close(ends[child_ == 0 ? 0 : 1]);
        pin(child_ == 0);
        if (child_ == 0) {
            loader(ends[1]);
            _exit(0);
        }
        link = ends[0];
        Container::getStdBoot()->fd[BOOT_FD_NODE] = link;
        Container::getStdDump()->fd[DUMP_FD_NODE] = link;
    }
    ~Phone() {
        close(link);
        waitpid(child_, nullptr, 0);
        Container::getBootDump()->std_boot_init_args();
        Container::getBootDump()->std_dump_init_args();
    }

    int link;

  private:
    pid_t child_;
};

bool send_word(int link, uint32_t word) {
    return write(link, &word, sizeof(word)) == sizeof(word);
}

bool receive(int link, void* data, size_t size) {
    pollfd node = {link, POLLIN, 0};
    return poll(&node, 1, 30000) == 1 && read(link, data, size) > 0;
}

bool exchange(int link, uint32_t command) {
    uint32_t word = 0;
    return send_word(link, udl_request(UDL_STAGE_DUMP, command)) &&
           receive(link, &word, sizeof(word)) && word == udl_response(UDL_STAGE_DUMP, command);
}

void say_dump(int link, uint32_t step_size) {
    const udl_dump_info info = {kSteps * step_size, kSteps, sizeof(kReason)};
    udl_frame frame = {0, udl_frames(step_size), 0, 0, {}};
    for (uint32_t word = 0; read(link, &word, sizeof(word)) > 0;) {
        const uint32_t command = word & 0xFF;
        if (command == UDL_CMD_START || command == UDL_CMD_DONE) {
            send_word(link, udl_response(UDL_STAGE_DUMP, command));
            if (command == UDL_CMD_DONE) continue;
            send(link, &info, sizeof(info), 0);
            send(link, kReason, sizeof(kReason), 0);
            continue;
        }
        frame.cmd = udl_response(UDL_STAGE_DUMP, command);
        uint32_t left = step_size;
        for (frame.curr_frame = 1; left > 0; ++frame.curr_frame, left -= frame.len) {
            frame.len = std::min(left, UDL_MSS);
            send(link, &frame, UDL_HEADER + frame.len, 0);
        }
    }
}

bool receive_dump(int link, int dump_fd) {
    udl_frame frame;
    if (!exchange(link, UDL_CMD_START) || !receive(link, &frame, sizeof(frame)) ||
        !receive(link, &frame, sizeof(frame)))
        return false;
    for (uint32_t step = 1; step <= kSteps; ++step) {
        if (!send_word(link, udl_request(UDL_STAGE_DUMP, step))) return false;
        do {
            if (!receive(link, &frame, sizeof(frame)) || write(dump_fd, frame.data, frame.len) < 0)
                return false;
        } while (frame.curr_frame < frame.num_frames);
    }
    return fsync(dump_fd) == 0 && exchange(link, UDL_CMD_DONE);
}

void upload(benchmark::State& state) {
    const uint32_t size = static_cast<uint32_t>(state.range(0)) * kMiB;
    const Phone phone([&](int link) { say_dump(link, size / kSteps); });
    const ScopedFd dump = scratch_file();
    const ScopedFd info = scratch_file();
    const auto empty = [&] {
        std_dump_args* record = Container::getStdDump();
        record->reason[0] = '\0';
        record->fd[DUMP_FD_INFO] = info.get();
        record->fd[DUMP_FD_DUMP] = dump.get();
        return ftruncate(dump.get(), 0) == 0 && lseek(dump.get(), 0, 0) == 0;
    };
    duel(
            state, size, empty,
            [&] { return Container::getProtocol()->std_dump_receive_cp_dump() == 0; },
            [&] { return receive_dump(phone.link, dump.get()); });
}

void take_image(int link) {
    udl_frame frame;
    while (read(link, &frame, sizeof(frame)) > 0) {
        if (frame.curr_frame == frame.num_frames)
            send_word(link, udl_response(kStage, UDL_CMD_BIN));
    }
}

bool send_image(int link, int image_fd, uint32_t size) {
    udl_frame frame = {udl_request(kStage, UDL_CMD_BIN), udl_frames(size), 0, 0, {}};
    lseek(image_fd, 0, SEEK_SET);
    for (uint32_t left = size; left > 0; left -= frame.len) {
        ++frame.curr_frame;
        frame.len = std::min(left, UDL_MSS);
        if (read(image_fd, frame.data, frame.len) < 0 ||
            write(link, &frame, UDL_HEADER + frame.len) < 0)
            return false;
    }
    uint32_t word = 0;
    return receive(link, &word, sizeof(word));
}

void download(benchmark::State& state) {
    const uint32_t size = static_cast<uint32_t>(state.range(0)) * kMiB;
    const Phone phone(take_image);
    const ScopedFd image = scratch_file();
    if (posix_fallocate(image.get(), 0, size) != 0) return state.SkipWithError("no image");
    const auto by_daemon = [&] {
        return Container::getProtocol()->std_dl_send_bin(kStage, image.get(), 0, size) == 0;
    };
    duel(
            state, size, [] { return true; }, by_daemon,
            [&] { return send_image(phone.link, image.get(), size); });
}

bool load_bare(int image_fd, uint32_t size) {
    static char buffer[kImageChunk];
    cp_image image = {};
    image.image_addr = reinterpret_cast<uintptr_t>(buffer);
    lseek(image_fd, 0, SEEK_SET);
    for (uint32_t left = size; left > 0; left -= image.len) {
        image.len = std::min(left, kImageChunk);
        if (read(image_fd, buffer, image.len) < 0 || ioctl(-1, IOCTL_LOAD_CP_IMAGE, &image) != 0)
            return false;
    }
    return true;
}

void load(benchmark::State& state) {
    const uint32_t size = static_cast<uint32_t>(state.range(0)) * kMiB;
    const ScopedFd image = scratch_file();
    if (posix_fallocate(image.get(), 0, size) != 0) return state.SkipWithError("no image");
    set_up_daemon();
    BootDumpModap modem;
    std_dload_control& row = modem.getStdBoot()->dload[0];
    row.fd = image.get();
    row.size = size;
    duel(
            state, size, [] { return true; },
            [&] { return modem.load_cp_image_by_stage(0, CP_BOOT_MODE_NORMAL) == 0; },
            [&] { return load_bare(image.get(), size); });
}

bool write_plainly(const char* path, size_t size) {
    const HeapPtr<char> bytes = heap_bytes(size);
    const ScopedFd file(open(path, O_RDWR | O_CREAT | O_SYNC | O_CLOEXEC, 0660));
    memset(bytes.get(), 0xFF, size);
    return write(file.get(), bytes.get(), size) == static_cast<ssize_t>(size) &&
           fsync(file.get()) == 0;
}

// On the disk, whose waits are what is measured.
void nv(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0)) * kMiB;
    std::string directory = "/var/tmp/rvd-bench-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr) return state.SkipWithError("no directory");
    const std::string path = directory + "/nv_data.bin";
    set_up_daemon();
    duel(
            state, size, [&] { return unlink(path.c_str()) == 0 || errno == ENOENT; },
            [&] { return Util::create_empty_nv(path.c_str(), size) == 0; },
            [&] { return write_plainly(path.c_str(), size); });
    unlink(path.c_str());
    rmdir(directory.c_str());
}

// The size in MiB; as many turns as narrow the interval.
BENCHMARK(upload)->Arg(16)->Arg(64)->Arg(256)->UseManualTime()->Iterations(61);
BENCHMARK(load)->Arg(16)->Arg(64)->Arg(256)->UseManualTime()->Iterations(101);
BENCHMARK(download)->Arg(16)->Arg(64)->Arg(256)->UseManualTime()->Iterations(61);
BENCHMARK(nv)->Arg(1)->Arg(16)->UseManualTime()->Iterations(61);

}  // namespace

}  // namespace rvd::bench

// The integrated modem's images in chunks through the driver, beside the barest read and request.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include "bench/support.h"
#include "bootdump/BootDumpModap.h"

namespace rvd::bench {

namespace {

constexpr uint32_t kMiB = 1 << 20;
constexpr uint32_t kChunk = 62 * 1024;

bool load_bare(int image_fd, uint32_t size) {
    static char buffer[kChunk];
    cp_image image = {};
    image.image_addr = reinterpret_cast<uintptr_t>(buffer);
    lseek(image_fd, 0, SEEK_SET);
    for (uint32_t left = size; left > 0; left -= image.len) {
        image.len = left < kChunk ? left : kChunk;
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
    Duel(state, size, [] { return true; })
            .run([&] { return modem.load_cp_image_by_stage(0, CP_BOOT_MODE_NORMAL) == 0; },
                 [&] { return load_bare(image.get(), size); });
}
BENCHMARK(load)->Arg(16)->Arg(64)->Arg(256)->UseManualTime()->Iterations(101);

}  // namespace

}  // namespace rvd::bench

// The integrated modem's images in chunks through the driver, and an NV file that is made.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "bench/duel.h"
#include "bootdump/BootDumpModap.h"
#include "util/Heap.h"
#include "util/Util.h"

namespace rvd::bench {

namespace {

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
    Duel(state, size, [] { return true; })
            .run([&] { return modem.load_cp_image_by_stage(0, CP_BOOT_MODE_NORMAL) == 0; },
                 [&] { return load_bare(image.get(), size); });
}
BENCHMARK(load)->Arg(16)->Arg(64)->Arg(256)->UseManualTime()->Iterations(101);

bool write_bare(const char* path, size_t size) {
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
    Duel(state, size, [&] { return unlink(path.c_str()) == 0 || errno == ENOENT; })
            .run([&] { return Util::create_empty_nv(path.c_str(), size) == 0; },
                 [&] { return write_bare(path.c_str(), size); });
    unlink(path.c_str());
    rmdir(directory.c_str());
}
BENCHMARK(nv)->Arg(1)->Arg(16)->UseManualTime()->Iterations(61);

}  // namespace

}  // namespace rvd::bench

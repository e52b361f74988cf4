// The figures, or for an instruction counter one transfer of so many frames:
//
//   rvd-bench [Google Benchmark's options]
//   rvd-bench frames upload|download daemon|bare NUMBER
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "bench/support.h"
#include "protocol/link.h"

using namespace rvd;
using namespace rvd::bench;

namespace {

bool upload_frames(bool by_daemon, uint32_t count) {
    const Upload work = {1, count * UDL_MSS};
    const Phone phone([&](int link) { work.play_loader(link); });
    const ScopedFd dump = scratch_file();
    const ScopedFd info = scratch_file();
    return by_daemon ? work.by_daemon(phone, dump.get(), info.get())
                     : work.by_bare_loop(phone, dump.get());
}

bool download_frames(bool by_daemon, uint32_t count) {
    const Download work = {count * UDL_MSS};
    const Phone phone(Download::play_loader);
    const ScopedFd image = scratch_file();
    if (ftruncate(image.get(), work.size) != 0) return false;
    return by_daemon ? work.by_daemon(image.get()) : work.by_bare_loop(phone, image.get());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && strcmp(argv[1], "frames") == 0) {
        const bool by_daemon = strcmp(argv[3], "daemon") == 0;
        const uint32_t count = static_cast<uint32_t>(strtoul(argv[4], nullptr, 10));
        const bool upload = strcmp(argv[2], "upload") == 0;
        return (upload ? upload_frames : download_frames)(by_daemon, count) ? 0 : 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

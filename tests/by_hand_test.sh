#!/usr/bin/env bash
# scripts/build-device with a fake NDK: a toolchain file of the same name that uses Debian's cross compiler.
# The compiler and headers of a real NDK are not tested.
#
#   by_hand_test.sh
set -uo pipefail
cd "$(dirname "$0")/.." || exit
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export RVD_BUILD_DIR=$work/build

status=0
ANDROID_NDK_HOME='' scripts/build-device 2>"$work/out" || status=$?
if ((status != 77)) || ! grep -q 'ANDROID_NDK_HOME names no NDK' "$work/out"; then
    echo "without an NDK: status $status: $(cat "$work/out")"
    exit 1
fi

mkdir -p "$work/ndk/build/cmake"
cat >"$work/ndk/build/cmake/android.toolchain.cmake" <<'END'
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_CXX_STANDARD_LIBRARIES "-static-libstdc++ -static-libgcc -Wl,--disable-new-dtags")
set(ANDROID TRUE)
END
ANDROID_NDK_HOME=$work/ndk scripts/build-device >"$work/out" 2>&1 || {
    tail -n 20 "$work/out"
    exit 1
}
tail -n 1 "$work/out"

#!/usr/bin/env bash
# A device build must use the platform's own properties and log: configures one and checks what it would
# compile and link.
#
#   device_build.sh CMAKE SOURCE_DIR BUILD_DIR
set -euo pipefail

cmake=$1 source=$2 build=$3
rm -rf "$build"
"$cmake" -S "$source" -B "$build" -G Ninja -DANDROID=ON -DRVD_LAB=OFF -DRVD_TESTS=OFF >/dev/null

failed=0
if grep -nF "$source/platform/" "$build/compile_commands.json"; then
    echo "a device build uses files of platform/"
    failed=1
fi
link=$(ninja -C "$build" -t commands rvd | grep -- '-o rvd ' || true)
for library in cutils log; do
    if [[ " $link " != *" -l$library "* ]]; then
        echo "a device build does not link -l$library: $link"
        failed=1
    fi
done
exit "$failed"

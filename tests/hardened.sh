#!/usr/bin/env bash
# Checks the hardening of a binary: PIE, full RELRO, no executable stack, stack protector, FORTIFY.
#
#   hardened.sh BINARY
set -euo pipefail

binary=$1
header=$(readelf -hW "$binary")
segments=$(readelf -lW "$binary")
dynamic=$(readelf -dW "$binary")
symbols=$(readelf --dyn-syms -W "$binary")
failed=0

# expect MESSAGE TEXT PATTERN: a line of TEXT must match.
expect() {
    if ! grep -Eq "$3" <<<"$2"; then
        echo "$binary: $1"
        failed=1
    fi
}

expect "is not position-independent" "$header" 'Type: +DYN'
expect "is not marked as a position-independent executable" "$dynamic" 'FLAGS_1.* PIE'
expect "has no RELRO segment" "$segments" 'GNU_RELRO'
expect "does not bind all symbols at start-up" "$dynamic" 'BIND_NOW|FLAGS_1.* NOW'
expect "has an executable stack" "$segments" 'GNU_STACK .* RW +0x'
expect "has no stack protector" "$symbols" ' UND __stack_chk_fail'
expect "is built without FORTIFY" "$symbols" ' UND __[a-z]+_chk(@|$)'
for tag in TEXTREL RPATH RUNPATH; do
    if grep -q "($tag)" <<<"$dynamic"; then
        echo "$binary: has a $tag entry"
        failed=1
    fi
done
exit "$failed"

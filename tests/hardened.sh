#!/usr/bin/env bash
# Holds a finished binary against what a vendor daemon must be: position-independent, with its
# relocations read-only from the start, no executable stack, guarded stacks and checked copies.
#
#   hardened.sh BINARY
set -euo pipefail

binary=$1
header=$(readelf -hW "$binary")
segments=$(readelf -lW "$binary")
dynamic=$(readelf -dW "$binary")
symbols=$(readelf --dyn-syms -W "$binary")
failed=0

# expect WHAT TEXT PATTERN: a line of TEXT matches.
expect() {
    if ! grep -Eq "$3" <<<"$2"; then
        echo "$binary: $1"
        failed=1
    fi
}

expect "is not position-independent" "$header" 'Type: +DYN'
expect "is not marked as a position-independent executable" "$dynamic" 'FLAGS_1.* PIE'
expect "has no read-only relocations" "$segments" 'GNU_RELRO'
expect "binds symbols late" "$dynamic" 'BIND_NOW|FLAGS_1.* NOW'
expect "does not say that its stack is not executable" "$segments" 'GNU_STACK .* RW +0x'
expect "has no stack protector" "$symbols" ' UND __stack_chk_fail'
expect "has no checked copies" "$symbols" ' UND __[a-z]+_chk(@|$)'
for tag in TEXTREL RPATH RUNPATH; do
    if grep -q "($tag)" <<<"$dynamic"; then
        echo "$binary: has a $tag entry"
        failed=1
    fi
done
exit "$failed"

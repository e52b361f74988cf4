#!/usr/bin/env python3
"""Holds what objects import against what a device has: check_symbols.py LEVEL TREE < SYMBOLS

SYMBOLS is what nm prints for all objects. An import is defined by another object, is in a map of the
platform's libraries for vendors since LEVEL or before, is declared by its property library, or
belongs to the compiler's own libraries.
"""
import pathlib
import re
import sys

LETTERS = {"O": 26, "P": 28, "Q": 29, "R": 30}
ARCHITECTURES = {"arm", "arm64", "x86", "x86_64", "mips", "mips64"}
OURS = "arm64"
# The C++ library comes with the vendor's image; the compiler's helpers are linked in.
RUNTIME = re.compile(r"_ZN?[KS]*t|_ZN[KO]*St|_ZTI|_ZTV|_ZTS|_Z(nw|na|dl|da)|__cxa_|__gxx_|__aarch64_")


def tagged_level(tags):
    for tag in tags:
        match = re.fullmatch(rf"introduced(?:-{OURS})?=(\w+)", tag)
        if match:
            return LETTERS.get(match.group(1)) or int(match.group(1))
    return 0


def for_us(tags):
    """Some symbols are for other processors, some for the platform's own modules alone."""
    named = ARCHITECTURES & set(tags)
    if named and OURS not in named or "platform-only" in tags:
        return False
    return "apex" not in tags or "llndk" in tags


def exported(path):
    """Symbols with the level that brought each."""
    levels, block_level, is_global = {}, 0, False
    for line in path.read_text().splitlines():
        code, _, comment = line.partition("#")
        code, tags = code.strip(), comment.split()
        if code.endswith("{"):
            block_level = tagged_level(tags)
        elif code in ("global:", "local:"):
            is_global = code == "global:"
        elif is_global and re.fullmatch(r"[\w.]+;", code) and for_us(tags):
            levels[code[:-1]] = tagged_level(tags) or block_level
    return levels


def main():
    level, tree = int(sys.argv[1]), pathlib.Path(sys.argv[2])
    levels = {}
    for path in sorted(tree.glob("bionic/*/*.map.txt")) + [
            tree / "system" / "core" / "liblog" / "liblog.map.txt"]:
        levels |= exported(path)
    header = tree / "system/core/libcutils/include/cutils/properties.h"
    levels |= {name: 0 for name in re.findall(r"\b(property_\w+)\(", header.read_text())}

    lines = [line.split() for line in sys.stdin if line.strip() and not line.endswith(":\n")]
    defined = {words[-1] for words in lines if words[-2] not in "Uw"}
    # A function that the linker wraps is imported under a name of the linker's.
    imports = {words[-1].removeprefix("__real_") for words in lines if words[-2] in "Uw"} - defined
    failures = []
    for name in sorted(imports):
        if name in levels:
            if levels[name] > level:
                failures.append(f"{name}: not before level {levels[name]}")
        elif not RUNTIME.match(name):
            failures.append(f"{name}: in no library of the platform")
    print(*failures, sep="\n", end="\n" if failures else "")
    if not imports:
        failures.append("no imports")
    if not failures:
        print(f"{len(imports)} symbols imported: all there at level {level}")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Holds Android.bp against the platform's build system: check_build.py [TREE]

Module types and property names are ones that it knows, files and modules that are named exist. With
the build system's own source in TREE they are read from there, otherwise from the list below.
check_build.py --sources lists what the device's binaries are built from, and --flags with which flags.
"""
import pathlib
import re
import sys

import blueprint
import check

# Of API level 30, as far as a project like this one may need them.
COMMON = {"name", "defaults", "enabled", "vendor", "host_supported", "device_supported", "required",
          "init_rc", "notice", "visibility"}
NATIVE = COMMON | {"srcs", "exclude_srcs", "cflags", "cppflags", "cpp_std", "c_std", "ldflags",
                   "local_include_dirs", "include_dirs", "header_libs", "shared_libs",
                   "static_libs", "whole_static_libs", "stl", "sanitize", "relative_install_path",
                   "export_include_dirs", "rtti", "tidy", "target", "arch", "product_variables"}
MODULE_TYPES = {
    "cc_defaults": NATIVE,
    "cc_binary": NATIVE,
    "cc_library_host_static": NATIVE,
    "cc_library_static": NATIVE,
    "cc_test_host": NATIVE | {"gtest", "test_suites", "test_config", "data"},
    "cc_fuzz": NATIVE | {"corpus", "dictionary", "data", "fuzz_config"},
    "filegroup": {"name", "srcs", "path", "visibility"},
    "prebuilt_etc": COMMON | {"src", "sub_dir", "filename", "filename_from_src", "installable"},
}
# Conditions that stand between a property and its place.
CONDITIONS = r"(?:target\.(?:android|host|linux|linux_glibc|darwin|vendor)|arch\.\w+)\."
# Modules of the platform that are named here.
PLATFORM_MODULES = {"libcutils", "liblog", "libgmock", "libc++fs"}
FILE_PROPERTIES = ("src", "srcs", "exclude_srcs", "init_rc", "corpus", "dictionary")
MODULE_PROPERTIES = ("defaults", "static_libs", "shared_libs", "required")


class BuildSystem:
    """What the build system's Go source registers and reads, all types together."""

    def __init__(self, soong):
        text = "\n".join(path.read_text() for path in sorted(soong.rglob("*.go"))
                         if not path.name.endswith("_test.go"))
        self.types = set(re.findall(r'RegisterModuleType\("(\w+)"', text))
        # A property is a field of a struct, with its first letter in capitals.
        fields = re.findall(r"^\s+([A-Z]\w*(?:, [A-Z]\w*)*)\s+[*\[\]\w.]+", text, re.M)
        self.properties = {name[0].lower() + name[1:]
                           for names in fields for name in names.split(", ")}

    def knows(self, kind, name):
        plain = re.sub("^" + CONDITIONS, "", name)
        return kind in self.types and set(plain.split(".")) <= self.properties


class KnownTypes:
    types = set(MODULE_TYPES)

    @staticmethod
    def knows(kind, name):
        return re.sub("^" + CONDITIONS, "", name) in MODULE_TYPES.get(kind, set())


def as_list(value):
    return value if isinstance(value, list) else [value]


def check_module(module, modules, system):
    what = f"{module.kind} {module.name()}"
    check.expect(module.kind in system.types, f"{what}: no such type of module")
    for name in module.property_names():
        check.expect(module.kind not in system.types or system.knows(module.kind, name),
                     f"{what}: no property '{name}'")
    for name in FILE_PROPERTIES:
        for pattern in as_list(module.properties.get(name, [])):
            check.expect(any(check.ROOT.glob(pattern)), f"{what}: {name}: no file {pattern}")
    known = {other.name() for other in modules} | PLATFORM_MODULES
    for name in MODULE_PROPERTIES:
        for other in as_list(module.properties.get(name, [])):
            check.expect(other in known, f"{what}: {name}: no module '{other}'")


def main():
    modules = blueprint.modules(check.ROOT / "Android.bp")
    binaries = [module for module in modules if module.kind == "cc_binary"]
    argument = sys.argv[1] if len(sys.argv) > 1 else ""
    if argument == "--sources":
        for path in sorted({path for binary in binaries
                            for path in blueprint.sources(binary, modules, check.ROOT)}):
            print(path.relative_to(check.ROOT))
        return 0
    if argument == "--flags":
        properties = blueprint.with_defaults(binaries[0], modules)
        print(f"-std={properties['cpp_std']}", *properties["cflags"],
              *(f"-I{check.ROOT / path}" for path in properties["local_include_dirs"]), sep="\n")
        return 0
    soong = pathlib.Path(argument) / "build" / "soong"
    system = BuildSystem(soong) if argument and soong.is_dir() else KnownTypes
    for module in modules:
        check_module(module, modules, system)
    names = [module.name() for module in modules]
    for name in sorted({name for name in names if names.count(name) > 1}):
        check.failures.append(f"{name}: two modules of this name")
    for failure in check.failures:
        print(failure)
    if not check.failures:
        print(f"{len(modules)} modules: types, properties, files and modules are known "
              f"({'the tree' if system is not KnownTypes else 'the list'} says so)")
    return 1 if check.failures else 0


if __name__ == "__main__":
    sys.exit(main())

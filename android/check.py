#!/usr/bin/env python3
"""Holds the packaging for the platform against the daemon's source.

Every node, path, property, request and capability in the source is covered here, and nothing more.
Where the platform itself labels something, the label that the daemon meets is written below.
"""
import pathlib
import re
import sys

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent
ROOMS = ("main", "bootdump", "protocol", "srinfo", "log", "util")
MODEMS = ("tq720", "vk880")

# Labelled by the platform: what a path is to the policy.
PLATFORM_PATHS = {
    "/data": "labeledfs:filesystem",  # asked for its free space only
    "/dev/kmsg": "kmsg_device:chr_file",
    "/proc/cmdline": "proc_cmdline:file",
    "/sys/power/wake_lock": "sysfs_wake_lock:file",
    "/sys/power/wake_unlock": "sysfs_wake_lock:file",
}
PLATFORM_PROPERTIES = {
    "sys.powerctl": "powerctl_prop",
    "sys.shutdown.requested": "exported_system_radio_prop",
}
# On the way to the daemon's paths; and what it asks of the kernel.
PLATFORM_WAY = {"block_device:dir", "block_device:lnk_file", "mnt_vendor_file:dir",
                "vendor_data_file:dir", "kernel:system", "self:process",
                "self:global_capability_class_set", "self:global_capability2_class_set"}
# When a file system is there.
TRIGGERS = {"/mnt/": "post-fs", "/data/": "post-fs-data", "/sys/": "boot"}
# Options that name a path, with the form it takes; an .rc file may not use them unseen.
PATH_OPTIONS = {"-B", "-D", "-P", "-p", "-n"}
PATH_FORMS = {"/dev/%s", "/dev/block/%s", "/dev/block/mmcblk0p%s"}
# The rights that taking one's own root away needs.
TO_DROP_ROOT = {"setuid"}

failures = []


def expect_same(what, in_source, in_packaging):
    in_source, in_packaging = set(in_source), set(in_packaging)
    for missing in sorted(in_source - in_packaging):
        failures.append(f"{what} {missing}: in the source, not covered in android/")
    for extra in sorted(in_packaging - in_source):
        failures.append(f"{what} {extra}: in android/, not in the source")


def read(path):
    return re.sub(r"(^|\s)#.*", "", path.read_text(), flags=re.M)


class Source:
    def __init__(self):
        text = ""
        for room in ROOMS:
            for path in sorted((ROOT / room).glob("*.*")):
                text += re.sub(r"//.*|#include.*", "", path.read_text())
        self.text = re.sub(r'"\s*"', "", text)
        literals = set(re.findall(r'"((?:\\.|[^"\\])*)"', self.text))
        device_path = r"/(dev|data|sys|proc|efs|mnt|vendor)(/\S*)?"
        self.paths = {x for x in literals if re.fullmatch(device_path, x)} - PATH_FORMS
        property_name = r"(?:ro|sys|persist|vendor|service|init|ctl)(?:\.\w+)+"
        self.properties = {x for x in literals if re.fullmatch(property_name, x)}
        self.constants = dict(re.findall(rf'(\w+)\[\]\s*=\s*"({property_name})"', self.text))
        self.capabilities = {x.lower() for x in re.findall(r"\bCAP_((?!TO_)[A-Z_]+)\b", self.text)}

    def set_properties(self):
        names = re.findall(r'property_set\(\s*(?:(\w+)|"([^"]*)")', self.text)
        return {self.constants.get(constant, literal) for constant, literal in names}

    def requests(self):
        """Request numbers by node, as the low 16 bits that a policy tells apart."""
        numbers = {name: 0x6F00 | int(number, 16) for name, number in re.findall(
            r"(IOCTL_\w+)\s*=\s*_IO\w*\(kLnkmType,\s*0x(\w+)", self.text)}
        used = {"boot": set(), "dump": set()}
        for descriptor, name in re.findall(r"\bioctl\(\s*([^,]+),\s*(\w+)", self.text):
            used["dump" if re.search("DUMP|UPLOAD", descriptor) else "boot"].add(numbers[name])
        return used


class Policy:
    def __init__(self):
        vendor = HERE / "sepolicy" / "vendor"
        self.te = "\n".join(read(path) for path in sorted(HERE.glob("sepolicy/**/*.te")))
        self.files = {}
        for pattern, label in re.findall(r"^(\S+)\s+u:object_r:(\w+):s0$",
                                         read(vendor / "file_contexts"), re.M):
            self.files[pattern.replace("\\.", ".")] = label
        for path, label in re.findall(r"^genfscon sysfs (\S+)\s+u:object_r:(\w+):s0$",
                                      read(vendor / "genfs_contexts"), re.M):
            self.files["/sys" + path] = label
        self.properties = {}
        for path in HERE.glob("sepolicy/**/property_contexts"):
            self.properties.update(re.findall(r"^(\S+)\s+u:object_r:(\w+):s0\b", read(path), re.M))

    def accesses(self):
        return set(re.findall(r"^allow rvd (\w+:\w+)", self.te, re.M))

    def declared_types(self):
        return set(re.findall(r"^type (\w+),", self.te, re.M)) - {"rvd", "rvd_exec"}

    def property_types(self, macro):
        return set(re.findall(rf"^{macro}\(rvd, (\w+)\)", self.te, re.M))

    def declared_properties(self):
        return set(re.findall(r"^\w+_prop\((\w+)\)", self.te, re.M))

    def capabilities(self):
        return set(" ".join(re.findall(r"self:global_capability2?_class_set\s*\{([^}]*)\}",
                                       self.te)).split())

    def requests(self, node):
        block = re.search(rf"allowxperm rvd modem_{node}_device:chr_file ioctl \{{([^}}]*)\}}",
                          self.te)
        return {int(number, 16) for number in block.group(1).split()}


def parent(path):
    return str(pathlib.PurePath(path).parent)


def check_paths(source, policy):
    own = source.paths - set(PLATFORM_PATHS)
    for path in sorted(set(PLATFORM_PATHS) - source.paths):
        failures.append(f"path {path}: of the platform, no longer in the source")
    trees = {p.removesuffix("(/.*)?") for p in policy.files if p.endswith("(/.*)?")}
    labels = {p.removesuffix("(/.*)?"): label for p, label in policy.files.items()}

    # A path of the source has a label, alone or in a tree, and so has a directory it is made in.
    plain = {path for path in own if not path.startswith(("/dev/", "/sys/"))}
    in_tree = {path for path in own if any(path.startswith(tree + "/") for tree in trees)}
    directories = {parent(path) for path in plain - in_tree}
    expect_same("path", (own - in_tree) | directories | {"/vendor/bin/rvd"}, labels)
    if failures:
        return

    accesses = set(PLATFORM_PATHS.values()) | PLATFORM_WAY
    for path in own - in_tree:
        kind = "file"
        if path.startswith("/dev/"):
            kind = "blk_file" if path.startswith("/dev/block/") else "chr_file"
        accesses.add(f"{labels[path]}:{kind}")
    accesses |= {f"{labels[path]}:dir" for path in directories | trees}
    expect_same("access to", accesses, policy.accesses())
    expect_same("type", set(labels.values()) - {"rvd_exec"}, policy.declared_types())
    # A directory that the daemon makes gets its own label then.
    for tree in trees:
        name = tree.split("/")[-1]
        rule = f'type_transition rvd {labels[parent(tree)]}:dir {labels[tree]} "{name}"'
        if rule not in policy.te:
            failures.append(f"path {tree}: not labelled when the daemon makes it")


def check_nodes(source):
    nodes = {path for path in source.paths if path.startswith("/dev/")} - set(PLATFORM_PATHS)
    entries = dict(re.findall(r"^(/\S+)\s+0\d+\s+(\w+)\s+\w+$",
                              read(HERE / "ueventd.rvd.rc"), re.M))
    expect_same("node", nodes, entries)
    for node, owner in entries.items():
        if owner != "radio":
            failures.append(f"node {node}: belongs to {owner}, the daemon opens it as radio")


def check_requests(source, policy):
    for node, numbers in source.requests().items():
        expect_same(f"{node} node request", map(hex, numbers), map(hex, policy.requests(node)))


def check_properties(source, policy):
    expect_same("property", source.properties - set(PLATFORM_PROPERTIES), policy.properties)
    expect_same("property of the platform", PLATFORM_PROPERTIES,
                source.properties & set(PLATFORM_PROPERTIES))
    expect_same("property type", set(policy.properties.values()), policy.declared_properties())
    types = {**policy.properties, **PLATFORM_PROPERTIES}
    written = source.set_properties()
    expect_same("set_prop", {types.get(name, name) for name in written},
                policy.property_types("set_prop"))
    # Whoever may set a property may read it.
    expect_same("get_prop", {types.get(name, name) for name in source.properties - written},
                policy.property_types("get_prop") | policy.property_types("set_prop") &
                {types.get(name, name) for name in source.properties - written})


def check_capabilities(source, policy):
    kept = source.capabilities
    expect_same("capability", kept | TO_DROP_ROOT, policy.capabilities())
    for modem in MODEMS:
        line = re.search(r"^ *capabilities (.*)$", read(HERE / f"rvd_{modem}.rc"), re.M).group(1)
        expect_same(f"rvd_{modem}.rc: capability", kept | TO_DROP_ROOT, line.lower().split())


def check_services(source):
    groups = {"radio"} | set(re.findall(r'kLogGroup\[\] = "(\w+)"', source.text))
    for modem in MODEMS:
        name = f"rvd_{modem}.rc"
        rc = read(HERE / name)
        command = re.search(r"^service rvd /vendor/bin/rvd (.*)$", rc, re.M).group(1).split()
        if command != ["-d", "-t", modem] or PATH_OPTIONS & set(command):
            failures.append(f"{name}: unexpected command line {' '.join(command)}")
        line = re.search(r"^ *group (.*)$", rc, re.M).group(1)
        expect_same(f"{name}: group", groups, line.split())
        for line in ("class core", "user root", "seclabel u:r:rvd:s0"):
            if not re.search(rf"^ *{line}$", rc, re.M):
                failures.append(f"{name}: has no line '{line}'")


def check_directories(source):
    actions = set()
    for path in sorted(HERE.glob("rvd*.rc")):
        for section in re.split(r"^(?=\S)", read(path), flags=re.M):
            head = section.split("\n")[0].removeprefix("on ")
            actions |= {f"{head}: {verb} {target}" for verb, target in re.findall(
                r"^ +(mkdir|chown|chmod) [^/\n]*(/\S+)", section, re.M)}
    wanted = set()
    for path in source.paths - set(PLATFORM_PATHS):
        trigger = next((when for top, when in TRIGGERS.items() if path.startswith(top)), None)
        if path.startswith("/sys/"):
            wanted |= {f"{trigger}: chown {path}", f"{trigger}: chmod {path}"}
        elif path.startswith("/mnt/"):
            wanted |= {f"{trigger}: chown {path}", f"{trigger}: mkdir {parent(path)}"}
        elif path.startswith("/data/") and parent(path) not in source.paths:
            wanted.add(f"{trigger}: mkdir {parent(path)}")
    expect_same("action", wanted, actions)


def check_sources():
    """The platform's build takes what the other build takes; the virtual phone is not for it."""
    android = (ROOT / "Android.bp").read_text()
    globs = r"(?:%s)/\*\.cpp" % "|".join(ROOMS)
    taken = re.search(r'^cc_binary \{.*?^\}', android, re.M | re.S).group(0)
    expect_same("sources", re.findall(globs, (ROOT / "CMakeLists.txt").read_text()),
                re.findall(globs, taken))
    fuzzers = {path.stem: path.read_text() for path in (ROOT / "fuzz").glob("*.cpp")}
    doors = {name for name, text in fuzzers.items()
             if re.search(r"LLVMFuzzerTestOneInput\(.*\{", text) and '"lab/' not in text}
    dictionaries = {path.stem for path in (ROOT / "fuzz").glob("*.dict")}
    expect_same("dictionary", dictionaries & doors, re.findall(r'"fuzz/(\w+)\.dict"', android))
    expect_same("fuzzer", doors, set(re.findall(r'"fuzz/(\w+)\.cpp"', android)) - {"support"})


def main():
    source = Source()
    policy = Policy()
    check_paths(source, policy)
    check_nodes(source)
    check_requests(source, policy)
    check_properties(source, policy)
    check_capabilities(source, policy)
    check_services(source)
    check_directories(source)
    check_sources()
    for failure in failures:
        print(failure)
    if not failures:
        print(f"{len(source.paths)} paths, {len(source.properties)} properties, "
              f"{sum(map(len, source.requests().values()))} requests, "
              f"{len(source.capabilities)} capabilities: covered, and nothing more")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

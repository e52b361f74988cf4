#!/usr/bin/env python3
"""Holds the packaging for the platform against the daemon's source; needs no tree of the platform's.

Every node, path, property, request and capability in the source is covered here, and nothing more.
A device's own copy of device/ is checked when it is named:  check.py DIRECTORY
"""
import pathlib
import re
import sys

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent
ROOMS = ("main", "bootdump", "protocol", "srinfo", "log", "util")

# What the platform labels itself; which label, check_policy.py finds out.
PLATFORM_PATHS = {"/data", "/dev/kmsg", "/efs/factory.prop", "/proc/cmdline", "/proc/self/fd/%d",
                  "/sys/power/wake_lock", "/sys/power/wake_unlock"}
PLATFORM_PROPERTIES = {"ro.hardware.chipname", "sys.powerctl", "sys.shutdown.requested"}
# What a capability is for: the daemon keeps more of them than it uses.
CAPABILITY_USES = {"setuid": "setuid(", "syslog": "klogctl(",
                   "block_suspend": "/sys/power/wake_lock"}
# Options that name a path: which of the modem's paths each replaces, and in what form.
PATH_OPTIONS = {"-B": ("boot", "/dev/%s"), "-D": ("dump", "/dev/%s"),
                "-P": ("partition", "/dev/block/%s"), "-p": ("partition", "/dev/block/mmcblk0p%s"),
                "-n": ("nv", "%s/nv_data.bin")}
# The end of a partition's name on a device with two slots, in a service, for ueventd, in a label.
SLOTS = {"${ro.boot.slot_suffix}": "_[ab]", "_*": "_[ab]"}

failures = []


def expect(condition, text):
    if not condition:
        failures.append(text)


def expect_same(what, in_source, in_packaging):
    in_source, in_packaging = set(in_source), set(in_packaging)
    for missing in sorted(in_source - in_packaging):
        failures.append(f"{what} {missing}: the daemon needs it, it is not here")
    for extra in sorted(in_packaging - in_source):
        failures.append(f"{what} {extra}: it is here, the daemon does not need it")


def read(path):
    return re.sub(r"(^|\s)#.*", "", path.read_text(), flags=re.M)


def one_slot(path):
    for ending, pattern in SLOTS.items():
        path = path.replace(ending, pattern)
    return path


def parent(path):
    return str(pathlib.PurePath(path).parent)


class Source:
    def __init__(self):
        text = ""
        for room in ROOMS:
            for path in sorted((ROOT / room).glob("*.*")):
                text += re.sub(r"//.*|#include.*", "", path.read_text())
        self.text = re.sub(r'"\s*"', "", text)
        literals = set(re.findall(r'"((?:\\.|[^"\\])*)"', self.text))
        device_path = r"/(dev|data|sys|proc|efs|mnt|vendor)(/\S*)?"
        forms = {form for _, form in PATH_OPTIONS.values()}
        self.paths = {x for x in literals if re.fullmatch(device_path, x)} - forms
        property_name = r"(?:ro|sys|persist|vendor|service|init|ctl)(?:\.\w+)+"
        self.properties = {x for x in literals if re.fullmatch(property_name, x)}
        self.constants = dict(re.findall(rf'(\w+)\[\]\s*=\s*"({property_name})"', self.text))
        self.kept = {x.lower() for x in re.findall(r"\bCAP_((?!TO_)[A-Z_]+)\b", self.text)}

    def modems(self):
        """What each modem's paths are without an option, by its name."""
        partition = re.search(r'kPartitionPath\[\]\s*=\s*"([^"]*)"', self.text).group(1)
        presets = re.findall(r'"(\w+)", "\w+", "(/dev/[^"]*)",\s*"(/dev/[^"]*)",\s*"(/[^"]*)"',
                             self.text)
        return {name: {"boot": boot, "dump": dump, "nv": nv, "partition": partition}
                for name, boot, dump, nv in presets}

    def set_properties(self):
        names = re.findall(r'property_set\(\s*(?:(\w+)|"([^"]*)")', self.text)
        return {self.constants.get(constant, literal) for constant, literal in names}

    def used_capabilities(self):
        return {name for name, use in CAPABILITY_USES.items() if use in self.text}

    def requests(self):
        """Request numbers by node, as the low 16 bits that a policy tells apart."""
        numbers = {name: 0x6F00 | int(number, 16) for name, number in re.findall(
            r"(IOCTL_\w+)\s*=\s*_IO\w*\(kLnkmType,\s*0x(\w+)", self.text)}
        used = {"boot": set(), "dump": set()}
        for descriptor, name in re.findall(r"\bioctl\(\s*([^,]+),\s*(\w+)", self.text):
            used["dump" if re.search("DUMP|UPLOAD", descriptor) else "boot"].add(numbers[name])
        return used


class Service:
    """The service of one .rc file, and the paths that its command line comes to."""

    def __init__(self, path, source):
        self.name = path.name
        self.text = read(path)
        command = re.search(r"^service rvd /vendor/bin/rvd (.*)$", self.text, re.M)
        self.words = command.group(1).split() if command else []
        arguments = dict(zip(self.words, self.words[1:]))
        self.modem = arguments.get("-t", "")
        self.paths = dict(source.modems().get(self.modem, {}))
        for option, (role, form) in PATH_OPTIONS.items():
            if option in arguments:
                self.paths[role] = one_slot(form % arguments[option])

    def option(self, name):
        line = re.search(rf"^ +{name} (.*)$", self.text, re.M)
        return line.group(1).split() if line else []

    def actions(self):
        """Commands on paths with the trigger of each, as (trigger, verb, path)."""
        found = set()
        for section in re.split(r"^(?=\S)", self.text, flags=re.M):
            if section.startswith("on "):
                trigger = section.split("\n")[0].removeprefix("on ").strip()
                found |= {(trigger, verb, path) for verb, path in re.findall(
                    r"^ +(\w+) [^/\n]*(/\S+)", section, re.M)}
        return found


class Policy:
    def __init__(self, device):
        vendor = HERE / "sepolicy" / "vendor"
        self.te = "\n".join(read(path) for path in sorted(HERE.glob("sepolicy/**/*.te")))
        self.files = {}
        for path in (vendor / "file_contexts", device / "sepolicy" / "file_contexts"):
            for pattern, label in re.findall(r"^(\S+)\s+u:object_r:(\w+):s0$", read(path), re.M):
                self.files[pattern.replace("\\.", ".")] = label
        for path, label in re.findall(r"^genfscon sysfs (\S+)\s+u:object_r:(\w+):s0$",
                                      read(device / "sepolicy" / "genfs_contexts"), re.M):
            self.files["/sys" + path] = label
        self.properties = {}
        for path in HERE.glob("sepolicy/**/property_contexts"):
            self.properties.update(re.findall(r"^(\S+)\s+u:object_r:(\w+):s0\b", read(path), re.M))

    def types(self):
        return set(re.findall(r"^type (\w+),", self.te, re.M)) - {"rvd", "rvd_exec"}

    def property_types(self):
        return set(re.findall(r"^\w+_prop\((\w+)\)", self.te, re.M))

    def allowed(self):
        """The daemon's rules as (type, class, rights)."""
        rules = re.findall(r"^allow rvd (\w+):(\w+)\s+(?:(\w+)|\{([^}]*)\});", self.te, re.M)
        return {(kind, klass, frozenset((one + many).split()))
                for kind, klass, one, many in rules}

    def macro(self, name):
        return set(re.findall(rf"^{name}\(rvd, (\w+)\)", self.te, re.M))

    def capabilities(self):
        return set().union(*(rights for _, klass, rights in self.allowed()
                             if klass.startswith("global_capability")))

    def requests(self, node):
        block = re.search(rf"allowxperm rvd modem_{node}_device:chr_file ioctl \{{([^}}]*)\}}",
                          self.te)
        return {int(number, 16) for number in block.group(1).split()}


def wanted_paths(source, services):
    """The source's paths with those of the modems as the services give them."""
    defaults = {path for modem in source.modems().values() for path in modem.values()}
    return (source.paths - defaults).union(*(service.paths.values() for service in services))


def check_labels(source, policy, paths):
    own = paths - PLATFORM_PATHS
    expect(PLATFORM_PATHS <= paths,
           f"paths of the platform that the source has no more: {PLATFORM_PATHS - paths}")
    trees = {p.removesuffix("(/.*)?") for p in policy.files if p.endswith("(/.*)?")}
    labels = {p.removesuffix("(/.*)?"): label for p, label in policy.files.items()}

    # A path has a label, alone or in a tree, and so has the directory it is made in.
    in_tree = {path for path in own if any(path.startswith(tree + "/") for tree in trees)}
    plain = {path for path in own if not path.startswith(("/dev/", "/sys/"))}
    directories = {parent(path) for path in plain if path not in in_tree or parent(path) in trees}
    expect_same("path", (own - in_tree) | directories | {"/vendor/bin/rvd"}, labels)
    if failures:
        return

    accesses = {f"{labels[path]}:dir" for path in directories | trees}
    for path in own:
        if path in labels and path not in directories | trees:
            node = "blk_file" if path.startswith("/dev/block/") else "chr_file"
            accesses.add(f"{labels[path]}:{node if path.startswith('/dev/') else 'file'}")
    accesses |= {f"{labels[tree]}:file" for tree in trees}
    expect_same("type", set(labels.values()) - {"rvd_exec"}, policy.types())
    expect_same("access to", accesses, {f"{kind}:{klass}" for kind, klass, _ in policy.allowed()
                                        if kind in policy.types()})
    # A directory that the daemon makes gets its own label then.
    for tree in trees & source.paths:
        rule = (f"type_transition rvd {labels[parent(tree)]}:dir {labels[tree]} "
                f'"{pathlib.PurePath(tree).name}"')
        expect(rule in policy.te, f"path {tree}: not labelled when the daemon makes it")


def check_nodes(device, services):
    nodes = {path for service in services for path in service.paths.values()
             if path.startswith("/dev/")}
    entries = dict(re.findall(r"^(/\S+)\s+0\d+\s+(\w+)\s+\w+$",
                              read(device / "ueventd.rvd.rc"), re.M))
    expect_same("node", nodes, map(one_slot, entries))
    for node, owner in entries.items():
        expect(owner == "radio", f"node {node}: belongs to {owner}, the daemon opens it as radio")


def check_recipe():
    """The lines for ueventd stand in the recipe too, to be copied from there."""
    recipe = (HERE / "README.md").read_text()
    for line in read(HERE / "device" / "ueventd.rvd.rc").splitlines():
        expect(f"    {line}\n" in recipe or not line, f"README.md: lacks the line {line}")


def check_requests(source, policy):
    for node, numbers in source.requests().items():
        expect_same(f"{node} node request", map(hex, numbers), map(hex, policy.requests(node)))


def check_properties(source, policy):
    expect_same("property", source.properties, set(policy.properties) | PLATFORM_PROPERTIES)
    expect_same("property type", set(policy.properties.values()), policy.property_types())
    written = source.set_properties()
    labels = policy.properties
    setters = {labels[name] for name in written if name in labels}
    expect_same("set_prop", setters, policy.macro("set_prop") & policy.property_types())
    # Whoever may set a property may read it.
    readers = {labels[name] for name in source.properties - written if name in labels}
    expect_same("get_prop", readers - setters, policy.macro("get_prop") & policy.property_types())


def check_capabilities(source, policy):
    used = source.used_capabilities()
    expect_same("capability", used, policy.capabilities())
    expect(used <= source.kept | {"setuid"}, f"capabilities used but not kept: {used - source.kept}")


def check_service(service, source):
    expect(service.paths, f"{service.name}: no service of a known modem")
    for word in service.words:
        expect(not word.startswith("-o"), f"{service.name}: '-o' is for tries by hand")
    expect("-d" in service.words, f"{service.name}: '-d' is missing, the daemon would not stay")
    expect(service.option("user") == ["root"], f"{service.name}: does not start as root")
    expect(service.option("class"), f"{service.name}: has no class")
    groups = {"radio"} | set(re.findall(r'kLogGroup\[\] = "(\w+)"', source.text))
    expect_same(f"{service.name}: group", groups, service.option("group"))
    expect_same(f"{service.name}: capability", source.kept | {"setuid"},
                {word.lower() for word in service.option("capabilities")})


def check_actions(service, source):
    """What the daemon opens as the radio user is given to it; check_init.py looks at when."""
    nv = service.paths["nv"]
    wanted = {("restorecon_recursive", parent(nv)), ("chown", parent(nv)), ("chmod", parent(nv)),
              ("chown", nv)}
    if service.modem == "tq720":  # the one that is told the SIM count
        for path in source.paths - PLATFORM_PATHS:
            if path.startswith("/sys/"):
                wanted |= {("chown", path), ("chmod", path)}
    expect_same(f"{service.name}: action", {" ".join(pair) for pair in wanted},
                {f"{verb} {path}" for _, verb, path in service.actions()})


def check_log_directory(source):
    text = read(HERE / "rvd.rc")
    tops = {parent(path) for path in source.paths
            if path.startswith("/data/") and parent(path) not in source.paths}
    expect_same("rvd.rc: directory", tops, re.findall(r"^ +mkdir (\S+)", text, re.M))


def check_sources():
    """The platform's build takes what the other build takes; virtual phone and report are not for it."""
    android = (ROOT / "Android.bp").read_text()
    globs = r"(?:%s)/\*\.cpp" % "|".join(ROOMS)
    taken = re.search(r'^cc_binary \{.*?^\}', android, re.M | re.S).group(0)
    expect_same("sources", re.findall(globs, (ROOT / "CMakeLists.txt").read_text()),
                re.findall(globs, taken))
    fuzzers = {path.stem: path.read_text() for path in (ROOT / "fuzz").glob("*.cpp")}
    doors = {name for name, text in fuzzers.items()
             if re.search(r"LLVMFuzzerTestOneInput\(.*\{", text) and not re.search(r'"(?:lab|report)/', text)}
    dictionaries = {path.stem for path in (ROOT / "fuzz").glob("*.dict")}
    expect_same("dictionary", dictionaries & doors, re.findall(r'"fuzz/(\w+)\.dict"', android))
    expect_same("fuzzer", doors, set(re.findall(r'"fuzz/(\w+)\.cpp"', android)) - {"support"})


def main():
    device = pathlib.Path(sys.argv[1]) if len(sys.argv) > 1 else HERE / "device"
    source = Source()
    policy = Policy(device)
    services = [Service(path, source) for path in sorted(device.glob("rvd_*.rc"))]
    expect(services, f"{device}: no rvd_*.rc")
    paths = wanted_paths(source, services)
    check_labels(source, policy, paths)
    check_nodes(device, services)
    check_requests(source, policy)
    check_properties(source, policy)
    check_capabilities(source, policy)
    for service in services:
        check_service(service, source)
        if service.paths:
            check_actions(service, source)
    check_log_directory(source)
    check_sources()
    check_recipe()
    for failure in failures:
        print(failure)
    if not failures:
        print(f"{len(paths)} paths, {len(source.properties)} properties, "
              f"{sum(map(len, source.requests().values()))} requests, "
              f"{len(source.kept)} capabilities: covered, and nothing more")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

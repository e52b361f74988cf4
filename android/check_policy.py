#!/usr/bin/env python3
"""Holds the daemon's policy against the platform's: check_policy.py TREE FULL BARE LABELS THEIRS

FULL is the compiled policy of a device; BARE is the same without one rule of the daemon's, that is,
what the platform grants every vendor's domain. LABELS are the compiled labels of files, THEIRS the
platform's alone. What the daemon does to a path or a property must be granted, and every rule must
grant something that is needed and not there already.
"""
import itertools
import pathlib
import re
import subprocess
import sys

import setools

import check

# Labels that the platform gives to whatever has none of its own, for a vendor to refine.
DEFAULT_LABELS = {"device", "block_device", "vendor_file", "vendor_data_file", "mnt_vendor_file",
                  "sysfs", "vendor_default_prop", "default_prop"}
# Who sets what the daemon finds: files of properties are read as init, those of /vendor and /odm as
# vendor_init.
PROPERTY_SETTERS = {"ro.hardware.chipname": "vendor_init", "ro.vtc.sales_code": "init"}
# What the daemon does beyond paths and properties, by the call that does it.
CALLS = {"klogctl(": ("kernel", "system", "syslog_read"),
         "linkat(": ("modem_nv_file", "file", "link")}
# What a command of an .rc file does to its path, as vendor_init.
COMMAND_RIGHTS = {"chown": ["setattr"], "chmod": ["setattr"], "mkdir": ["create"],
                  "restorecon_recursive": ["relabelto"]}


class Policy:
    def __init__(self, path):
        self.policy = setools.SELinuxPolicy(path)

    def granted(self, domain):
        """All that a domain may do, as (type, class, right)."""
        rules = setools.TERuleQuery(self.policy, ruletype=["allow"], source=domain,
                                    source_indirect=True).results()
        return {(str(target), str(rule.tclass), right) for rule in rules
                for target in rule.target.expand() for right in rule.perms}

    def kernel_file(self, path, passed_over=()):
        """The label of a file that the kernel makes: of the longest entry that it begins with."""
        system, inside = ("proc", path[5:]) if path.startswith("/proc") else ("sysfs", path[4:])
        labels = {entry.path: str(entry.context.type_) for entry in self.policy.genfscons()
                  if entry.fs == system and (inside or "/").startswith(entry.path)}
        return labels[max((entry for entry, label in labels.items() if label not in passed_over),
                          key=len)]


class PropertyLabels:
    """An exact name goes before a prefix, a longer prefix before a shorter one."""

    LINE = re.compile(r"(\S+)\s+u:object_r:(\w+):s0"
                      r"(?:\s+(exact|prefix)(?:\s+(?:string|bool|int|uint|double|size|enum\s+.*))?)?")

    def __init__(self, *paths):
        self.exact, self.prefixes = {}, {}
        for path in paths:
            for line in path.read_text().splitlines():
                line = line.split("#")[0].strip()
                match = self.LINE.fullmatch(line)
                check.expect(match or not line, f"{path.name}: unreadable: {line}")
                if match:
                    labels = self.exact if match.group(3) == "exact" else self.prefixes
                    labels[match.group(1)] = match.group(2)

    def of(self, name):
        if name in self.exact:
            return self.exact[name]
        fitting = [prefix for prefix in self.prefixes if name.startswith(prefix)]
        return self.prefixes[max(fitting, key=len)] if fitting else "default_prop"


def file_label(labels, path, kind):
    answer = subprocess.run(["selabel_lookup", "-b", "file", "-f", labels, "-k", path, "-t", kind],
                            capture_output=True, text=True, check=True).stdout
    return answer.strip().split(":")[-2]


def kind_of(path, directories):
    if path in directories:
        return "dir", "dir"
    if path.startswith("/dev/block/"):
        return "blk_file", "block"
    return ("chr_file", "char") if path.startswith("/dev/") else ("file", "file")


def label_of(full, labels, path, kind):
    if path.startswith(("/proc", "/sys")):
        return full.kernel_file(path)
    return file_label(labels, path, kind)


def needed_for_paths(full, labels, paths):
    """Every directory on the way is searched, every file opened, what is missing made."""
    directories = {check.parent(path) for path in paths} & paths | {"/data"}
    needed = {}
    for path in paths:
        if path.startswith("/proc/self/fd/"):
            needed[("rvd", "lnk_file", "read")] = path
            continue
        klass, kind = kind_of(path, directories)
        label = label_of(full, labels, path, kind)
        if path == "/data":
            needed[("labeledfs", "filesystem", "getattr")] = f"free space of {path}"
        else:
            needed[(label, klass, "add_name" if klass == "dir" else "open")] = path
        for above in pathlib.PurePath(path).parents:
            where = label_of(full, labels, str(above), "dir")
            needed[(where, "dir", "search")] = f"{above} on the way to {path}"
        if path.startswith(("/data/", "/mnt/")):
            above = label_of(full, labels, check.parent(path), "dir")
            needed[(above, "dir", "add_name")] = f"{path}, made where it is missing"
    return needed


def needed_for_properties(properties, source):
    needed = {}
    for name in source.properties:
        needed[(properties.of(name), "file", "open")] = f"property {name}"
    for name in source.set_properties():
        needed[(properties.of(name), "property_service", "set")] = f"setting of {name}"
    return needed


def check_needs(needed, full, bare, own):
    granted, anyway = full.granted("rvd"), bare.granted("rvd")
    for right, why in sorted(needed.items()):
        check.expect(right in granted, f"{why}: needs {' '.join(right)}, which is not granted")
    objects = {right[:2] for right in needed}
    for kind, klass, rights in own.allowed():
        if kind == "self":
            kind, klass = "rvd", re.sub("global_(.*)_class_set", r"\1", klass)
        for right in rights:
            check.expect((kind, klass, right) not in anyway,
                         f"allow rvd {kind}:{klass} {right}: the platform grants it already")
        if kind not in own.types() | {"rvd"}:
            check.expect((kind, klass) in objects, f"allow rvd {kind}:{klass}: nothing needs it")
    for name in own.macro("get_prop"):
        check.expect((name, "file", "open") not in anyway,
                     f"get_prop(rvd, {name}): the platform grants it already")
        check.expect((name, "file") in objects, f"get_prop(rvd, {name}): nothing needs it")
    for name in own.macro("set_prop"):
        check.expect((name, "property_service") in objects,
                     f"set_prop(rvd, {name}): nothing needs it")


def check_taken_over(full, theirs, own, properties):
    """A label of the platform's stays: others have rules for it."""
    before = {name: properties.of(name) for name in own.properties}
    for pattern in own.files:
        path = pattern.removesuffix("(/.*)?")
        if path.startswith("/sys"):
            before[path] = full.kernel_file(path, passed_over=own.types())
        else:
            before[path] = file_label(theirs, path, kind_of(path, {path} - {pattern})[1])
    for name, label in before.items():
        check.expect(label in DEFAULT_LABELS, f"{name}: taken over, the platform's {label}")


def check_setters(full, properties):
    for name, domain in PROPERTY_SETTERS.items():
        right = (properties.of(name), "property_service", "set")
        check.expect(right in full.granted(domain), f"{name}: {domain} may not set {right[0]}")


def check_commands(full, labels, services):
    granted = full.granted("vendor_init")
    log_actions = re.findall(r"^ +(mkdir) (/\S+)", check.read(check.HERE / "rvd.rc"), re.M)
    actions = {(verb, path) for service in services for _, verb, path in service.actions()}
    for verb, path in sorted(actions | set(log_actions)):
        is_file = "." in pathlib.PurePath(path).name or path.startswith("/sys")
        klass = "file" if is_file else "dir"
        label = label_of(full, labels, path, klass)
        inside = {klass, "file"} if verb.endswith("_recursive") else {klass}
        for klass, right in itertools.product(inside, COMMAND_RIGHTS[verb]):
            check.expect((label, klass, right) in granted,
                         f"{verb} {path}: vendor_init may not {right} {label}:{klass}")


def main():
    tree, full, bare, labels, theirs = sys.argv[1:]
    sepolicy = pathlib.Path(tree) / "system" / "sepolicy"
    full, bare = Policy(full), Policy(bare)
    device = check.HERE / "device"
    source = check.Source()
    own = check.Policy(device)
    services = [check.Service(path, source) for path in sorted(device.glob("rvd_*.rc"))]
    platform = [sepolicy / half / "property_contexts" for half in ("public", "private")]
    ours = sorted(check.HERE.glob("sepolicy/**/property_contexts"))
    properties = PropertyLabels(*platform, *ours)

    needed = needed_for_paths(full, labels, check.wanted_paths(source, services))
    needed |= needed_for_properties(properties, source)
    needed |= {right: call for call, right in CALLS.items() if call in source.text}
    check_needs(needed, full, bare, own)
    check_taken_over(full, theirs, own, PropertyLabels(*platform))
    check_setters(full, properties)
    check_commands(full, labels, services)
    for failure in check.failures:
        print(failure)
    if not check.failures:
        print(f"{len(needed)} needs granted, no rule without one, no label taken over")
    return 1 if check.failures else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Holds the .rc files and the owners of nodes against init's own sources: check_init.py TREE

Commands, options, capabilities, users and triggers are the ones that init knows, and what an action
touches exists when it runs, before the service that counts on it starts.
"""
import pathlib
import re
import sys

import check

# An entry of an fstab is mounted here at the latest: it may be marked to be mounted late.
LAST_MOUNT = "late-fs"
# What comes before late-init queues the rest.
EARLY_TRIGGERS = ("early-init", "init", "late-init")
# Kernel file systems are there from the beginning.
ALWAYS = ("/sys/", "/proc/")
# Where the partitions of a vendor are mounted.
MOUNT_POINTS = "/mnt/vendor/"
# Set before the first action, from the boot loader's words.
EARLY_PROPERTIES = "ro.boot."


class Init:
    """The tables of init's sources, and the platform's own .rc files."""

    def __init__(self, tree):
        core = pathlib.Path(tree) / "system" / "core"
        source = {path.stem: path.read_text() for path in (core / "init").glob("*.cpp")}
        row = re.compile(r'\{"([\w.]+)",\s*\{(\d+),\s*([\w +]+),')
        self.commands = {name: (int(least), self.number(most)) for name, least, most
                         in row.findall(source["builtins"])}
        self.options = {name: (int(least), self.number(most)) for name, least, most
                        in row.findall(source["service_parser"])}
        self.capabilities = set(re.findall(r"CAP_MAP_ENTRY\((\w+)\),", source["capabilities"]))
        self.node_keywords = re.findall(r'Add\w+Parser\(\s*"([^"]+)"', source["ueventd_parser"])
        users = core / "libcutils" / "include" / "private" / "android_filesystem_config.h"
        self.users = {name.lower() for name in re.findall(r"^#define AID_(\w+) \d+",
                                                          users.read_text(), re.M)}
        self.sections = [section for path in sorted((core / "rootdir").glob("*.rc"))
                         for section in sections(path)]
        self.order = [line.split()[1] for line in self.lines("on late-init")
                      if line.startswith("trigger ")]
        self.triggers = {section[0].split()[1] for section in self.sections
                         if section[0].startswith("on ")} | set(self.order)

    @staticmethod
    def number(text):
        return int(text) if text.strip().isdigit() else sys.maxsize

    def lines(self, head):
        return [line for section in self.sections if section[0] == head for line in section[1:]]

    def when(self, trigger):
        """The place of a trigger in a boot: some come before late-init's own, the rest after."""
        if trigger in EARLY_TRIGGERS:
            return -1
        return self.order.index(trigger) if trigger in self.order else len(self.order)

    def class_start(self, name):
        """The first trigger that starts a class."""
        starts = [section[0].split()[1] for section in self.sections
                  if section[0].startswith("on ") and f"class_start {name}" in section]
        return min(starts, key=self.when, default=None)

    def made_by(self, trigger):
        """Directories that init.rc makes up to and with a trigger; its files are read first."""
        return {line.split()[1].rstrip("/") for section in self.sections for line in section[1:]
                if section[0].startswith("on ") and line.startswith("mkdir ") and
                self.when(section[0].split()[1]) <= self.when(trigger)}


def sections(path):
    found = []
    for line in check.read(path).splitlines():
        if line.strip() and not line[0].isspace():
            found.append([line.strip()])
        elif line.strip():
            found[-1].append(line.strip())
    return found


def check_words(what, words, table):
    name, arguments = words[0], len(words) - 1
    if name not in table:
        check.failures.append(f"{what}: init knows no '{name}'")
        return
    least, most = table[name]
    check.expect(least <= arguments <= most,
                 f"{what}: '{name}' takes {least} to {most} arguments, not {arguments}")


def check_known_user(what, name, init):
    check.expect(name in init.users, f"{what}: no user or group '{name}'")


def check_exists(what, words, trigger, init, made):
    """The path of a command is there: of the kernel, mounted by then, or made by then."""
    path = next(word for word in words if word.startswith("/"))
    if path.startswith(ALWAYS):
        return
    if path.startswith(MOUNT_POINTS):
        check.expect(init.when(trigger) > init.when(LAST_MOUNT),
                     f"{what}: {path} may be mounted as late as {LAST_MOUNT}")
        return
    there = init.made_by(trigger) | made
    needed = check.parent(path) if words[0] == "mkdir" else path
    check.expect(needed in there, f"{what}: {needed} does not exist at {trigger}")


def check_properties(what, line):
    """A property that an action waits for or names has its value by then."""
    for name in re.findall(r"(?:property:|\$\{)([\w.]+)", line):
        check.expect(name.startswith(EARLY_PROPERTIES), f"{what}: property {name} may not be set by then")


def check_action(name, section, init, first_start):
    trigger = section[0].split()[1]
    what = f"{name}: on {trigger}"
    check.expect(trigger in init.triggers, f"{what}: init has no such trigger")
    if trigger not in init.triggers:
        return
    check.expect(init.when(trigger) < init.when(first_start),
                 f"{what}: runs after the class is started, at {first_start}")
    made = set()
    check_properties(what, section[0])
    for line in section[1:]:
        words = line.split()
        check_words(what, words, init.commands)
        check_properties(what, line)
        if words[0] in ("chown", "mkdir"):
            for user in words[1:3] if words[0] == "chown" else words[3:5]:
                check_known_user(what, user, init)
        if any(word.startswith("/") for word in words):
            check_exists(what, words, trigger, init, made)
        if words[0] == "mkdir":
            made.add(words[1])


def check_service(name, section, init):
    for line in section[1:]:
        words = line.split()
        check_words(name, words, init.options)
        if words[0] in ("user", "group"):
            for user in words[1:]:
                check_known_user(name, user, init)
        if words[0] == "capabilities":
            for capability in words[1:]:
                check.expect(capability in init.capabilities,
                             f"{name}: init knows no capability '{capability}'")


def check_rc(path, init, start_class):
    first_start = init.class_start(start_class)
    check.expect(first_start, f"{path.name}: nothing starts the class '{start_class}'")
    for section in sections(path) if first_start else []:
        if section[0].startswith("on "):
            check_action(path.name, section, init, first_start)
        elif section[0].startswith("service "):
            check_service(path.name, section, init)
        else:
            check.failures.append(f"{path.name}: neither action nor service: {section[0]}")


def check_nodes(path, init):
    for line in check.read(path).splitlines():
        words = line.split()
        if not words:
            continue
        check.expect(any(line.startswith(keyword) for keyword in init.node_keywords),
                     f"{path.name}: ueventd knows no '{words[0]}'")
        if not line.startswith("/"):
            continue
        entries = 5 if line.startswith("/sys/") else 4
        check.expect(len(words) == entries, f"{path.name}: {words[0]}: not {entries} entries")
        check.expect(re.fullmatch("0[0-7]{3}", words[-3]),
                     f"{path.name}: {words[0]}: '{words[-3]}' is no mode")
        for user in words[-2:]:
            check_known_user(path.name, user, init)


def main():
    init = Init(sys.argv[1])
    device = check.HERE / "device"
    services = sorted(device.glob("rvd_*.rc"))
    classes = {path: check.Service(path, check.Source()).option("class") for path in services}
    for path in services:
        check_rc(path, init, classes[path][0])
        check_rc(check.HERE / "rvd.rc", init, classes[path][0])
    check_nodes(device / "ueventd.rvd.rc", init)
    for failure in sorted(set(check.failures)):
        print(failure)
    if not check.failures:
        print(f"{len(init.commands)} commands, {len(init.options)} options, "
              f"{len(init.triggers)} triggers of init: the .rc files keep to them")
    return 1 if check.failures else 0


if __name__ == "__main__":
    sys.exit(main())

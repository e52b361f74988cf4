#!/usr/bin/env python3
"""Holds the manual pages against the programs.

    check_pages.py rvd             options, letters, words, properties and files, against the source
    check_pages.py rvd-check       options and lines, against the source
    check_pages.py rvd-lab BINARY  commands and options, against what the program says of itself
    check_pages.py rvd-report BINARY   the same
"""
import pathlib
import re
import subprocess
import sys

DOCS = pathlib.Path(__file__).resolve().parent
ROOT = DOCS.parent
ROOMS = ("main", "bootdump", "protocol", "srinfo", "log", "util")

failures = []


def expect_same(what, program, page):
    program, page = set(program), set(page)
    for missing in sorted(program - page):
        failures.append(f"{what} {missing}: in the program, not on the page")
    for extra in sorted(page - program):
        failures.append(f"{what} {extra}: on the page, not in the program")


def items(page, macro):
    """What the list items of one kind name."""
    found = []
    for item in re.findall(rf"^\.It {macro} (.*)$", page, re.M):
        found += re.sub(r" Ns (?:Ar|Pa) ", "", item).split(" , ")
    return found


def source():
    text = "".join(path.read_text() for room in ROOMS
                   for path in sorted((ROOT / room).glob("*.*")))
    for name, value in re.findall(r'^#define (\w+) (".*")$', text, re.M):
        text = re.sub(rf'(?<!#define ){name} "', value[:-1], text)
    return re.sub(r'"\s*\n\s*"', "", re.sub(r"//.*|#include.*", "", text))


def getopt_words(options):
    return {name + (" Ar" if argument else "") for name, argument in
            re.findall(r"(\w)(:?)", options)}


def letters(page, option):
    """The letters that the item of one option lists."""
    text = re.search(rf"^\.It Fl {option} Ar.*?(?=^\.It Fl|^\.S|\Z)", page, re.M | re.S).group(0)
    return re.findall(r"^\.It Cm (\w)$", text, re.M)


def check_daemon_options(page, text):
    options = re.search(r'kOptions\[\] = "\+([\w:]+)"', re.sub(r"\s*=\s*", " = ", text)).group(1)
    described = re.findall(r"^\.It Fl (\w(?: Ar)?)\b", page, re.M)
    expect_same("option", getopt_words(options), described)
    synopsis = page[page.index(".Sh SYNOPSIS"):page.index(".Sh DESCRIPTION")]
    flags = re.search(r"^\.Op Fl (\w+)$", synopsis, re.M).group(1)
    expect_same("option of the synopsis", getopt_words(options),
                set(flags) | set(re.findall(r"^\.Op Fl (\w Ar)\b", synopsis, re.M)))

    links = re.findall(r"\{'(\w)', LINK_\w+, ([^,]+), ([^}]+)\}", text)
    expect_same("-b", {x for x, boot, _ in links if boot != "nullptr"}, letters(page, "b"))
    expect_same("-m", {x for x, _, main in links if main != "nullptr"}, letters(page, "m"))
    expect_same("-o", re.findall(r"\{'(\w)', OPT_", text), letters(page, "o"))
    actions = text[text.index("int Util::rvd_do_test"):]
    expect_same("-T", re.findall(r"case '(\w)':", actions[:actions.index("\n}")]),
                letters(page, "T"))


def check_daemon_words(page, text):
    expect_same("kernel command line word", re.findall(r'"([a-z_.]+=)"', text),
                {x for x in items(page, "Cm") if x.endswith("=")})
    expect_same("property", re.findall(r'"((?:ro|sys|persist|vendor)(?:\.\w+)+)"', text),
                items(page, "Va"))
    expect_same("capability", re.findall(r"\b(CAP_(?!TO_)[A-Z_]+)\b", text),
                re.findall(r"^\.Dv (CAP_\w+)", page, re.M))
    expect_same("debug option", re.findall(r"^ *CP_DEBUG_\w+ = (\d)", text, re.M),
                re.findall(r"^\.It Cm (\d)$", page[page.index(".Ss Debug option"):], re.M))


def saved_names(text):
    """The parts of a saved file's name that stand, which are told apart by them."""
    names = [name + "_" for name in
             re.findall(r'Log::save_(?:now|in_background)\(\s*"([^"]+)"', text)]
    names += ["cpcrash_%s" + name for name in re.findall(r'"%s/%s(_\w+_%s(?:_%s)?)\.log"', text)]
    names += re.findall(r'"%s/(cpcrash_\S+?)\.log"', text)
    names += [form.replace("%s", name, 1) for form, name in
              re.findall(r'"%s/(\.?%s_%s(?:\.bak)?)", \S+?, "(\w+)"', text)]
    return {re.sub("%s", "", name) for name in names}


def check_daemon_files(page, text):
    files = page[page.index(".Sh FILES"):page.index(".Sh EXIT STATUS")]
    marked = re.sub(r"Ar \w+", "", re.sub(r"(?<=[\w.]) Ns (?=Ar|Pa)|(?<=Ns) ", "", files))
    fixed = [x for x in items(files, "Pa") if x.startswith("/")]
    paths = re.findall(r'"(/(?:dev|data|sys|proc|efs|mnt)[^%"]*)"', text)
    expect_same("file", set(paths) - {"/data/vendor/log/rvd/test"}, fixed)
    saved = re.findall(r"^(?:\.It )?\.?Pa (?!/)(.*?)(?: ,)?$", marked, re.M)
    saved = [re.sub(r"\s|Ns|Ar|Pa", "", name).removesuffix(".log") for name in saved]
    expect_same("saved file", saved_names(text), saved)


def check_daemon_messages(text):
    """Every line that speaks of a failure has its row among the messages."""
    said = [x for x in re.findall(r'"((?:[^"\\]|\\.)*)"', text)
            if re.search("ERR!|[Ff]ail|TIMEOUT|[Ii]nvalid", x)]
    said = {re.sub(r"%[-0-9.#l]*[a-zA-Z]", "*", x.replace("ERR! ", "").removesuffix("\\n"))
            .replace("0x*", "*") for x in said}
    said -= {"<3>lnkm: rvd: (*) *: ", "cpcrash_*_dump_fail", "TIMEOUT"}
    rows = set(re.findall(r"`([^`]+)`", (DOCS / "messages.md").read_text()))
    for missing in sorted(said - rows):
        failures.append(f"message {missing}: in the program, not in messages.md")


def check_daemon():
    page = (DOCS / "rvd.8").read_text()
    text = source()
    check_daemon_options(page, text)
    check_daemon_words(page, text)
    check_daemon_files(page, text)
    check_daemon_messages(text)


def check_check():
    page = (DOCS / "rvd-check.8").read_text()
    text = "".join(path.read_text() for path in sorted((ROOT / "check").glob("*.cpp")))
    options = re.findall(r'strcmp\(word, "--(\w+)"\)', text)
    synopsis = page[page.index(".Sh SYNOPSIS"):page.index(".Sh DESCRIPTION")]
    expect_same("option", options, re.findall(r"^\.It Fl Fl (\w+)$", page, re.M))
    expect_same("option of the synopsis", options, re.findall(r"Fl Fl (\w+)", synopsis))
    # A request's line has the request's name.
    printed = {line.replace("%s", "Ar file") for line in re.findall(
        r'(?:->|\.)(?:ok|no|add)\(\s*"([^"]+)"|(?:open_file|check_writable)\(\s*report, "([^"]+)"'
        r'|\bdone\("([^"]+)"|what = text\("([^"]+)"', text) for line in line if line}
    expect_same("line", {line for line in printed if not line.isupper() and "_" not in line},
                re.findall(r"^\.It Sy (.*)$", page, re.M))


def help_of(binary, *command):
    run = subprocess.run([binary, *command, "--help"], capture_output=True, text=True, check=True)
    return run.stdout


def check_program(name, binary):
    page = (DOCS / f"{name}.1").read_text()
    overview = help_of(binary)
    listed = overview[re.search(r"^subcommands:\n", overview, re.M | re.I).end():]
    commands = re.findall(r"^  (\w[\w-]*)", listed.split("\n\n")[0], re.M)
    sections = dict(re.findall(r"^\.Ss Cm (\S+)\n(.*?)(?=^\.S[sh]|\Z)", page, re.M | re.S))
    expect_same("command", commands, sections)
    for command in commands:
        text = help_of(binary, command).split("\nExamples:")[0]
        says = set(re.findall(r"--([\w-]+)", text[text.lower().index("options:"):])) - {"help"}
        described = set(re.findall(r"^\.It Fl Fl (\S+)", sections.get(command, ""), re.M))
        if ".Sx Options of a run" in sections.get(command, ""):
            described |= shared_options(page)
        expect_same(f"{command}: option", {f"--{x}" for x in says}, {f"--{x}" for x in described})


def shared_options(page):
    shared = page[page.index(".Ss Options of a run"):]
    shared = shared[:re.search(r"^\.S[sh] ", shared[5:], re.M).start() + 5]
    return set(re.findall(r"^\.It Fl Fl (\S+)", shared, re.M))


def main():
    if sys.argv[1:] == ["rvd"]:
        check_daemon()
    elif sys.argv[1:] == ["rvd-check"]:
        check_check()
    elif sys.argv[1] in ("rvd-lab", "rvd-report") and len(sys.argv) == 3:
        check_program(*sys.argv[1:])
    else:
        print(__doc__, file=sys.stderr)
        return 2
    for failure in failures:
        print(failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

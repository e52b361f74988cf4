#!/usr/bin/env python3
"""Holds README.md, docs/rvd.8 and docs/messages.md against report/troubles.toml.

    check_troubles.py ROOT            says what differs
    check_troubles.py ROOT --write    puts it there
"""
import pathlib
import re
import sys
import tomllib


def readme_rows(troubles):
    for trouble in troubles:
        lines = [f"`{line}`" for line in trouble.get("lines", [])] or [trouble["sign"]]
        yield f"| {', '.join(lines)} | {trouble['means']} |\n"


def page_items(troubles):
    """The items of the manual page; a word in back quotes is literal there."""
    for trouble in troubles:
        for line in trouble.get("lines", []):
            yield f'.It Qq {line}\n'
        if "sign" in trouble:
            yield f".It {trouble['sign'].capitalize()}\n"
        words = re.sub(r"`([^`]*)`([,;:.]?)", r"\n.Ql \1 \2\n", trouble["means"])
        for line in filter(None, (line.strip() for line in words.split("\n"))):
            yield (line.replace("-", r"\-") if line.startswith(".Ql") else line) + "\n"


def replaced(text, start, end, rows):
    """The text with what stands between two patterns replaced."""
    begin = re.search(start, text).end()
    finish = re.compile(end, re.M).search(text, begin).start()
    return text[:begin] + "".join(rows) + text[finish:]


def unknown_lines(troubles, messages):
    """What is a trouble must be a message: "*" stands for anything there, and "ERR! " is left out."""
    rows = "\n".join(re.findall(r"^\| (`.*`) \|", messages, re.M))
    known = {line.replace("*", "...").removeprefix("...: ") for line in re.findall(r"`([^`]*)`", rows)}
    starts = [line.split("...")[0] for line in known]
    for trouble in troubles:
        for line in trouble.get("lines", []):
            bare = line.removeprefix("ERR! ")
            exact = bare in known or any(
                re.fullmatch(".*".join(map(re.escape, other.split("..."))), bare) for other in known)
            if not exact and not any(start.startswith(bare.split("...")[0]) for start in starts):
                yield line


def main():
    root = pathlib.Path(sys.argv[1])
    troubles = tomllib.loads((root / "report/troubles.toml").read_text())["trouble"]
    failed = False
    for name, start, end, rows in (
            ("README.md", r"\| line \| what it means, what to do \|\n\| --- \| --- \|\n", r"^$",
             readme_rows(troubles)),
            ("docs/rvd.8", r"\.Sh DIAGNOSTICS\n(?:[^.].*\n)*\.Bl -tag -width Ds\n", r"^\.El",
             page_items(troubles))):
        text = (root / name).read_text()
        wanted = replaced(text, start, end, rows)
        if wanted == text:
            continue
        if "--write" in sys.argv:
            (root / name).write_text(wanted)
        else:
            failed = True
            print(f"{name} differs from report/troubles.toml: {sys.argv[0]} {root} --write")
    for line in unknown_lines(troubles, (root / "docs/messages.md").read_text()):
        failed = True
        print(f"docs/messages.md does not have \"{line}\"")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())

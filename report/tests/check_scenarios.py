#!/usr/bin/env python3
"""Plays every case, lets rvd-report make a scenario of what it left, and plays that: the daemon must
log the same lines again, apart from descriptors and times in file names.

    check_scenarios.py RVD-LAB RVD-REPORT EXCEPTIONS SCENARIOS...

EXCEPTIONS names the cases that come to other lines, each with its reason.
"""
import pathlib
import re
import subprocess
import sys
import tempfile

CHANCE = re.compile(r"\(fd \d+\)|_\d{8}-\d{4}\b|_\d{12}_\d\d\b")
LEAST = 80  # per cent


def lines(root):
    log = root / "run/rvd/android.log"
    text = log.read_text(encoding="utf-8", errors="replace") if log.exists() else ""
    return [CHANCE.sub("", line) for line in text.splitlines()]


def difference(first, second):
    for number, (a, b) in enumerate(zip(first, second), 1):
        if a != b:
            return f"line {number}: {a!r} became {b!r}"
    return f"{len(first)} lines became {len(second)}"


def play(lab, root, *scenarios):
    root.mkdir()
    return subprocess.run([lab, "run", "--quiet", "--root", root, *scenarios],
                          capture_output=True, text=True, check=False)


def differences(lab, report, scenario, work):
    """Of each case that logs anything: what differs, or nothing."""
    played = play(lab, work / "first", scenario)
    if played.returncode != 0:
        sys.exit(f"{scenario}: {played.stdout}{played.stderr}")
    (work / "made").mkdir()
    roots = [root for root in sorted((work / "first").iterdir()) if lines(root)]
    if not roots:
        return
    made = []
    for number, root in enumerate(roots):
        made.append(work / f"made/{number}.toml")
        with made[-1].open("wb") as file:
            subprocess.run([report, "scenario", root], stdout=file, check=True)
    again = play(lab, work / "again", *made)
    if not any((work / "again").iterdir()):
        sys.exit(f"{scenario}: {again.stdout}{again.stderr}")
    for root in roots:
        first, second = lines(root), lines(work / "again" / root.name)
        yield root.name, difference(first, second) if first != second else None


def main():
    lab, report, exceptions, *scenarios = sys.argv[1:]
    known = {line.split(": ")[0] for line in
             pathlib.Path(exceptions).read_text(encoding="ascii").splitlines() if line[0] != "#"}
    failed, cases = {}, 0
    for scenario in map(pathlib.Path, scenarios):
        with tempfile.TemporaryDirectory() as work:
            for case, what in differences(lab, report, scenario, pathlib.Path(work)):
                cases += 1
                if what:
                    failed[f"{scenario.stem}/{case}"] = what
    for name in sorted(failed.keys() - known):
        print(f"{name}: {failed[name]}")
    for name in sorted(known - failed.keys()):
        print(f"{name}: logs the same lines again, or is no case any more")
    share = 100 * (cases - len(failed)) / max(cases, 1)
    print(f"{cases - len(failed)} of {cases} cases log the same lines again ({share:.0f} %)")
    return 1 if share < LEAST or failed.keys() != known else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Measures a release build and prints one table: report.py BUILD_DIRECTORY. Ends with 1 when a figure
falls short of what is wanted of it."""
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time

BUILD = pathlib.Path(sys.argv[1]).resolve()
RATIO_WANTED = {"nv": 0.9}  # of the others 0.95
PEAK_WANTED_KIB = 4096

SCENARIO = """
[[case]]
name = "peak memory at a dump of {size}"
dump.steps = ["{size}"]
timeline = [{{ waits = true, state = 2 }}]
expect.end = "upload"
"""

short = 0


def say(what, figure, wanted="", held=True):
    global short
    short += not held
    print(f"{what:<34} {figure:<67} {wanted}{'' if held else '  SHORT'}".rstrip(), flush=True)


def transfers():
    """Of a ratio the median over all turns, and between what it lies with the noise of the machine: a
    figure falls short when all of that does."""
    output = subprocess.run([BUILD / "rvd-bench", "--benchmark_format=json"], check=True,
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
    for run in json.loads(output)["benchmarks"]:
        work, size = (run["name"].split("/") + [""])[:2]
        if run.get("error_occurred"):
            say(work, run["error_message"], held=False)
        elif work == "start":
            if run["aggregate_name"] == "median":
                say("start to the first driver request", f"{run['real_time'] / 1e6:.2f} ms")
        else:
            bare, ratio = run["bare MB/s"], run["ratio"]
            allocations = run["allocations"]
            wanted = RATIO_WANTED.get(work, 0.95)
            say(f"{work}, {size} MiB", f"{ratio:.3f} ({run['low']:.2f} to {run['high']:.2f}) of the "
                f"bare loop's {bare:.0f} MB/s; {allocations:.0f} allocations",
                f">= {wanted}, <= 1", run["high"] >= wanted and allocations <= 1)


def resident_peak(session):
    """VmHWM of the daemon in a session, KiB; 0 before it runs."""
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if (process / "comm").read_text() == "rvd\n" and os.getsid(int(process.name)) == session:
                return int(re.search(r"VmHWM:\s+(\d+) kB", (process / "status").read_text())[1])
        except (OSError, TypeError):
            continue  # it has ended
    return 0


def peak_kib(size):
    """The daemon's largest resident set while the virtual phone takes a crash dump in real time."""
    with tempfile.NamedTemporaryFile("w", suffix=".toml") as scenario:
        scenario.write(SCENARIO.format(size=size))
        scenario.flush()
        environment = {name: value for name, value in os.environ.items() if name != "TMPDIR"}
        lab = subprocess.Popen([BUILD / "rvd-lab", "run", "--quiet", "--real-time", "--timeout=600",
                                scenario.name], env=environment, stdout=subprocess.PIPE,
                               start_new_session=True)
        peak = 0
        while lab.poll() is None:
            peak = max(peak, resident_peak(lab.pid))
            time.sleep(0.02)
        if lab.returncode != 0:
            say(f"peak memory, dump of {size}", "the run did not hold", held=False)
        return peak


def peak_memory():
    peaks = {size: peak_kib(size) for size in ("64 MiB", "1 GiB")}
    for size, peak in peaks.items():
        say(f"peak memory, dump of {size}", f"{peak} KiB", f"< {PEAK_WANTED_KIB} KiB",
            0 < peak < PEAK_WANTED_KIB)
    difference = abs(peaks["64 MiB"] - peaks["1 GiB"])
    say("peak memory, difference", f"{difference} KiB", "<= 64 KiB", difference <= 64)


transfers()
peak_memory()
sys.exit(short > 0)

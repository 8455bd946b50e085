"""Counts the instructions that one blocking call costs the service and the app, and compares them with the baseline.

  instructions.py BENCH-PROGRAM [--update]

One side runs under valgrind, the other plain. What a call costs is the difference between a long and a short run,
divided by the difference in calls: starting, connecting and ending cancel out. The count knows neither the machine's
speed nor its load. What of it would depend on the machine is settled: which of glibc's string functions are taken and
how many heaps there are by GLIBC_TUNABLES, who wakes whom by running both processes on one CPU.
"""
import json
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys
import tempfile

BASELINE = pathlib.Path(__file__).with_name("instructions.json")
ALLOWED = 1.05
CALLS = 100, 2100
# Each of these makes glibc choose other functions; without them all, any x86-64 is the plainest one.
FEATURES = ("AVX512F AVX512VL AVX512BW AVX2 AVX AVX_Fast_Unaligned_Load BMI1 BMI2 LZCNT MOVBE POPCNT ERMS FSRM RTM "
            "SSE4_2 SSE4_1 SSSE3 XSAVE XSAVEC").split()
TUNABLES = "glibc.malloc.arena_max=1"
if platform.machine() == "x86_64":
    TUNABLES += ":glibc.cpu.hwcaps=" + ",".join("-" + feature for feature in FEATURES)


def total(program, side, calls, scratch):
    """The instructions of one side's whole process."""
    out = pathlib.Path(scratch, "callgrind.out")
    tool = f"valgrind --quiet --tool=callgrind --callgrind-out-file={out}"
    run = subprocess.run([program, "--quick", "--mode", "sync1pin", "--calls", str(calls), f"--under-{side}", tool],
                         env={**os.environ, "GLIBC_TUNABLES": TUNABLES}, stdout=subprocess.PIPE, text=True, timeout=300)
    if run.returncode != 0:
        sys.exit(f"The {side} could not be measured: {run.stdout}")
    return int(re.search(r"^totals: (\d+)", out.read_text(), re.MULTILINE)[1])


def measure(program, repetitions):
    """For each side the median of a call's instructions, and by how much of it the repetitions differ."""
    sides = {}
    with tempfile.TemporaryDirectory() as scratch:
        for side in ("service", "app"):
            counts = []
            for _ in range(repetitions):
                short, long = (total(program, side, calls, scratch) for calls in CALLS)
                counts.append((long - short) / (CALLS[1] - CALLS[0]))
            middle = statistics.median(counts)
            sides[side] = {"instructions": round(middle), "spread": round((max(counts) - min(counts)) / middle, 4)}
    return sides


def versions():
    """What else, besides the library, the count is made of."""
    def ask(*command):
        return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout.strip()
    return {"g++": ask("g++", "-dumpfullversion"), "glibc": platform.libc_ver()[1],
            "jsoncpp": ask("pkg-config", "--modversion", "jsoncpp"),
            "libwebsockets": ask("pkg-config", "--modversion", "libwebsockets"),
            "valgrind": ask("valgrind", "--version").removeprefix("valgrind-")}


def main():
    update = sys.argv[2:] == ["--update"]
    if len(sys.argv) != 2 + update:
        sys.exit(__doc__)
    baselines = json.loads(BASELINE.read_text()) if BASELINE.exists() else {}
    machine = platform.machine()
    if not update and machine not in baselines:
        sys.exit(f"There is no baseline for {machine}: make one with --update.")
    sides = measure(sys.argv[1], 5 if update else 3)
    if update:
        baselines[machine] = {**sides, "versions": versions()}
        BASELINE.write_text(json.dumps(baselines, indent=2) + "\n")
    baseline = baselines[machine]
    good = True
    for side, now in sides.items():
        before = baseline[side]["instructions"]
        ratio = now["instructions"] / before
        good = good and ratio <= ALLOWED
        verdict = "" if ratio <= ALLOWED else f"  more than {ALLOWED - 1:.0%} over the baseline"
        print(f"{side:8} {now['instructions']:8} a call, baseline {before:8}: {ratio - 1:+.1%}, "
              f"spread {now['spread']:.1%}{verdict}")
    others = {name: version for name, version in versions().items() if version != baseline["versions"].get(name)}
    for name, version in others.items():
        print(f"{name} is {version} here; the baseline was counted with {baseline['versions'].get(name)}")
    sys.exit(0 if good else 1)


if __name__ == "__main__":
    main()

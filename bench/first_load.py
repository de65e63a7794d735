#!/usr/bin/python3
"""Loads in fresh processes: every variant of bench/first_load.cpp run as a
new process per repetition, the variants alternating, medians reported.

    /usr/bin/python3 bench/first_load.py build/release/bench/first_load \
        [--other OTHER_FIRST_LOAD ...] [--planes 200,100] [--reps 5] [--json OUT.json]

Each file (PLANES x 2 subsets x 5,000 points, every field) is written once by
the program into a temporary folder and read once before the runs, so every
read comes from the page cache. For each repetition every variant runs once,
in a rotated order. Two times are kept per run: the timed part as the
program measures it (wall clock, and user + system time from getrusage) and
the whole child process as the system accounts it (os.wait4: start, file
check, load, exit). With --other, another build of the program (or several)
runs every library variant too, alternating with the first (an A/B of
libraries), labelled with the name of the program's folder.
--json writes the medians in the shape of Google Benchmark's JSON output, so
that bench/report.py shows them beside the other figures. Standard library
only.
"""

import argparse
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

LOADS = ["load", "load_nocache", "repeat", "repeat_nocache", "points", "points_repeat"]
FLOORS = ["fread_1mib", "fread_fresh", "fread_fresh_zeroed", "fread_warm", "fread_points"]

# The library figure, its floor and what the floor is, for the table.
PAIRS = [
    ("first load, cache on", "load", "fread_1mib", "fread, one reused 1 MiB buffer"),
    ("first load, cache on", "load", "fread_fresh", "fread into fresh memory"),
    ("first load, cache off", "load_nocache", "fread_fresh", "fread into fresh memory"),
    ("repeated load, cache on", "repeat", "fread_1mib", "fread, one reused 1 MiB buffer"),
    ("repeated load, cache on", "repeat", "fread_warm", "fread into written buffers"),
    ("repeated load, cache off", "repeat_nocache", "fread_1mib",
     "fread, one reused 1 MiB buffer"),
    ("repeated load, cache off", "repeat_nocache", "fread_warm", "fread into written buffers"),
    ("points only, first load", "points", "fread_points", "fread of the points, fresh buffers"),
    ("points only, repeated", "points_repeat", "fread_points",
     "fread of the points, fresh buffers"),
]


def run_measured(program, variant, path):
    """One child process: the program's own figures and the child's rusage (os.wait4)."""
    read_end, write_end = os.pipe()
    start = time.monotonic()
    pid = os.fork()
    if pid == 0:
        try:
            os.dup2(write_end, 1)
            os.close(read_end)
            os.execv(program, [program, "run", variant, path])
        finally:
            os._exit(127)
    os.close(write_end)
    with os.fdopen(read_end, "rb") as pipe:
        out = pipe.read()
    _, status, usage = os.wait4(pid, 0)
    wall = (time.monotonic() - start) * 1e3
    if os.waitstatus_to_exitcode(status) != 0:
        raise RuntimeError(f"{program} run {variant} {path}: exit status {status}")
    figures = json.loads(out.decode())
    figures["cpu_ms"] = figures["user_ms"] + figures["sys_ms"]
    figures["process_wall_ms"] = wall
    figures["process_cpu_ms"] = (usage.ru_utime + usage.ru_stime) * 1e3
    return figures


def warm(path):
    with open(path, "rb") as f:
        while f.read(1 << 20):
            pass


def median(runs, key):
    return statistics.median(r[key] for r in runs)


def measure(programs, path, reps, chosen):
    """Medians per (program label, variant) over `reps` alternating rounds."""
    jobs = [(label, program, v) for label, program in programs for v in LOADS if v in chosen]
    jobs += [(programs[0][0], programs[0][1], v) for v in FLOORS if v in chosen]
    runs = {(label, v): [] for label, _, v in jobs}
    for rep in range(reps):
        shift = rep % len(jobs)
        for label, program, variant in jobs[shift:] + jobs[:shift]:
            runs[(label, variant)].append(run_measured(program, variant, path))
    return runs


def summary(runs):
    keys = ("real_ms", "cpu_ms", "user_ms", "sys_ms", "minor_faults", "process_wall_ms",
            "process_cpu_ms")
    return {name: {k: median(r, k) for k in keys} | {"n": len(r)} for name, r in runs.items()}


def print_tables(planes, size, figures, labels):
    base = labels[0]
    print(f"\n### {planes} planes x 2 subsets x 5,000 points, every field ({size / 1e6:.0f} MB)\n")
    print("| variant | program | real ms | CPU ms (user + sys) | minor faults | "
          "process wall ms | process CPU ms |")
    print("|---|---|---|---|---|---|---|")
    for (label, variant), f in sorted(figures.items(), key=lambda kv: (kv[0][1], kv[0][0])):
        print(f"| {variant} | {label} | {f['real_ms']:.1f} | {f['cpu_ms']:.1f} "
              f"({f['user_ms']:.1f} + {f['sys_ms']:.1f}) | {f['minor_faults']:.0f} | "
              f"{f['process_wall_ms']:.1f} | {f['process_cpu_ms']:.1f} |")
    print()
    print("| load | floor | program | of floor (real) | of floor (CPU) |")
    print("|---|---|---|---|---|")
    for text, lib, floor, floor_text in PAIRS:
        if (base, floor) not in figures or (base, lib) not in figures:
            continue
        fl = figures[(base, floor)]
        for label in labels:
            f = figures[(label, lib)]
            print(f"| {text} | {floor_text} | {label} | {fl['real_ms'] / f['real_ms']:.2f} | "
                  f"{fl['cpu_ms'] / f['cpu_ms']:.2f} |")


def benchmark_entries(planes, figures):
    entries = []
    for (label, variant), f in sorted(figures.items()):
        name = f"FirstLoad/planes:{planes}/{variant}" + ("" if label == "new" else f"/{label}")
        entries.append({"name": name, "run_name": name, "run_type": "iteration",
                        "iterations": f["n"], "real_time": f["real_ms"], "cpu_time": f["cpu_ms"],
                        "time_unit": "ms", "minor_faults": f["minor_faults"],
                        "process_wall_ms": f["process_wall_ms"],
                        "process_cpu_ms": f["process_cpu_ms"], "planes": planes})
    return entries


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("program", help="the first_load program of the build to measure")
    parser.add_argument("--other", action="append", default=[],
                        help="a first_load program of another build (A/B); may be repeated")
    parser.add_argument("--planes", default="200,100", help="planes of each file, comma-separated")
    parser.add_argument("--reps", type=int, default=5, help="repetitions (at least 5 for medians)")
    parser.add_argument("--variants", default=",".join(LOADS + FLOORS),
                        help="the variants to run, comma-separated (default: all)")
    parser.add_argument("--dir", help="folder for the files (default: a temporary one)")
    parser.add_argument("--json", help="write the medians here, as Google Benchmark JSON")
    args = parser.parse_args()
    programs = [("new", os.path.abspath(args.program))]
    for other in args.other:
        # Named after the program's folder: the build it belongs to.
        label = os.path.basename(os.path.dirname(os.path.abspath(other))) or "other"
        programs.append((label, os.path.abspath(other)))
    folder = tempfile.mkdtemp(prefix="luanaf-first-load-", dir=args.dir)
    entries = []
    try:
        print(f"load average {os.getloadavg()[0]:.2f}, {args.reps} repetitions, medians")
        for planes in (int(p) for p in args.planes.split(",")):
            path = os.path.join(folder, f"planes{planes}.afxs")
            subprocess.run([programs[0][1], "write", path, str(planes)], check=True)
            warm(path)
            figures = summary(measure(programs, path, args.reps, args.variants.split(",")))
            print_tables(planes, os.path.getsize(path), figures, [p[0] for p in programs])
            entries += benchmark_entries(planes, figures)
            os.remove(path)
        print(f"load average {os.getloadavg()[0]:.2f}")
    finally:
        shutil.rmtree(folder, ignore_errors=True)
    if args.json:
        context = {"date": time.strftime("%Y-%m-%dT%H:%M:%S"), "num_cpus": os.cpu_count(),
                   "load_avg": list(os.getloadavg())}
        with open(args.json, "w", encoding="utf-8") as f:
            json.dump({"context": context, "benchmarks": entries}, f, indent=1)
    return 0


if __name__ == "__main__":
    sys.exit(main())

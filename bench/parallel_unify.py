#!/usr/bin/env python3
"""Speed-up of many unifications from 1 to 2 (or more) worker processes.

    PYTHONPATH=<build>/python /usr/bin/python3 bench/parallel_unify.py \
        --luafxs <build>/tools/luafxs [--sections 16] [--planes 40] [--points 4000]

Writes a folder of cross-sections (each two overlapping scans with result
points), then times `luafxs batch SCANS -o OUT -j N` and, when Dask is
importable, examples/python/dask_unify.py with N workers, for N = 1 and 2
(--workers to change), blending off and on. Each figure is the median of
--reps runs; --dir picks the file system (every output is flushed to the
device before it is renamed into place, so on a disk the device's write
bandwidth is shared by the processes; a tmpfs leaves it out); "work
alone" leaves out the start of the Dask cluster (the same as the whole run
for batch), and "in luanaf.unify" sums the seconds the Dask workers spent
unifying. Two controls at the end run the same code in 2 (the last
--workers) processes at once against in a row: a pure CPU loop, and a copy
of one cross-section's bytes (numpy.copyto, 25 MB by default) again and
again, bound by the memory's bandwidth: the speed-ups the machine itself
allows at that moment. Prints a Markdown table. Timing only: nothing is
asserted.
"""

import argparse
import math
import os
import re
import pathlib
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np

import luanaf

ROOT = pathlib.Path(__file__).resolve().parents[1]


def scan(subset_id, first_deg, last_deg, radius, planes, points):
    out = []
    angles = np.radians(np.linspace(first_deg, last_deg, points))
    for plane_id in range(planes):
        normals = np.stack([np.cos(angles), np.sin(angles), np.zeros_like(angles)], axis=1)
        pts = normals * radius + np.array([0.0, 0.0, float(plane_id)])
        out.append({
            "plane_id": plane_id, "subset_id": subset_id, "points": pts, "normals": normals,
            "segments": np.array([points], np.int32), "res_points": pts + normals * 0.05,
            "distances": np.full(points, 0.05),
        })
    return out


def write_sections(folder, sections, planes, points):
    header = {"version": 1, "point": (0.0, 0.0, 0.0), "normal": (0.0, 0.0, 1.0),
              "num_planes": planes, "dist_bw_planes": 1.0}
    # Neighbouring points about as far apart as in a real scan (0.44 units).
    radius = points * 0.44 / math.radians(100.0)
    for s in range(sections):
        sub = folder / f"xs{s:03d}"
        sub.mkdir(parents=True)
        luanaf.write(sub / "a.afxs", header, scan(1, 0.0, 100.0, radius, planes, points))
        luanaf.write(sub / "b.afxs", header, scan(2, 60.0, 160.0, radius + 0.1, planes, points))


def timed(command):
    """Wall-clock seconds of the run, of its work alone when it says so (the
    Dask example: the time after its cluster was up and its workers had
    imported the module), and the seconds its workers spent in
    luanaf.unify (None for batch)."""
    started = time.perf_counter()
    run = subprocess.run(command, check=True, capture_output=True, text=True)
    wall = time.perf_counter() - started
    work = re.search(r"\(([0-9.]+) s of work once the cluster was up and warm; "
                     r"([0-9.]+) s in luanaf.unify", run.stdout)
    if not work:
        return wall, wall, None
    return wall, float(work.group(1)), float(work.group(2))


def median_time(command, out, reps):
    runs = []
    for _ in range(reps):
        shutil.rmtree(out, ignore_errors=True)
        out.mkdir()
        runs.append(timed(command))
    unifying = [r[2] for r in runs if r[2] is not None]
    return (statistics.median(r[0] for r in runs), statistics.median(r[1] for r in runs),
            statistics.median(unifying) if unifying else None)


SPIN = "s = 0\nfor i in range(4_000_000): s += i\n"
COPY = ("import numpy as np\na = np.ones({size} // 8)\nb = np.empty_like(a)\n"
        "for i in range({times}): np.copyto(b, a)\n")


def control(code, n, reps):
    """The machine's own ceiling at that moment: `n` copies of `code` run at
    once against one copy run n times in a row (medians of reps)."""
    def run(copies):
        started = time.perf_counter()
        procs = [subprocess.Popen([sys.executable, "-c", code]) for _ in range(copies)]
        for p in procs:
            p.wait()
        return time.perf_counter() - started
    one = statistics.median(run(1) for _ in range(reps))
    return n * one / statistics.median(run(n) for _ in range(reps))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--luafxs", required=True)
    parser.add_argument("--sections", type=int, default=16)
    parser.add_argument("--planes", type=int, default=40)
    parser.add_argument("--points", type=int, default=4000)
    parser.add_argument("--workers", type=int, nargs="+", default=[1, 2])
    parser.add_argument("--reps", type=int, default=3)
    parser.add_argument("--dir", help="where the files go (default: a new folder in the system's "
                                      "temporary folder); e.g. a tmpfs to leave the disk out")
    args = parser.parse_args()
    try:
        import dask.distributed  # noqa: F401
        have_dask = True
    except ImportError:
        have_dask = False

    with tempfile.TemporaryDirectory(prefix="luanaf-parallel-", dir=args.dir) as tmp:
        scans, out = pathlib.Path(tmp) / "scans", pathlib.Path(tmp) / "out"
        write_sections(scans, args.sections, args.planes, args.points)
        size = sum(p.stat().st_size for p in scans.rglob("*.afxs"))
        print(f"{args.sections} cross-sections x 2 scans x {args.planes} planes x "
              f"{args.points} points ({size / 1e6:.0f} MB), median of {args.reps}, "
              f"load average {os.getloadavg()[0]:.1f} at the start\n")
        print("| runner | blending | " + " | ".join(f"{n} proc. (s)" for n in args.workers)
              + " | speed-up | work alone: " + " | ".join(f"{n} proc. (s)" for n in args.workers)
              + " | speed-up | in luanaf.unify: "
              + " | ".join(f"{n} proc. (s)" for n in args.workers) + " |")
        print("|---|---|" + "---|" * (3 * len(args.workers) + 2))
        for blend in (False, True):
            runners = [("luafxs batch", lambda n: [args.luafxs, "batch", str(scans), "-o",
                                                   str(out), "-j", str(n)]
                        + (["--blend"] if blend else []))]
            if have_dask:
                runners.append(("dask_unify.py", lambda n: [
                    sys.executable, str(ROOT / "examples" / "python" / "dask_unify.py"),
                    str(scans), str(out), "-j", str(n)] + (["--blend"] if blend else [])))
            for name, command in runners:
                times = [median_time(command(n), out, args.reps) for n in args.workers]
                walls = [t[0] for t in times]
                works = [t[1] for t in times]
                unifying = [t[2] for t in times]
                print(f"| {name} | {'on' if blend else 'off'} | "
                      + " | ".join(f"{t:.2f}" for t in walls)
                      + f" | {walls[0] / walls[-1]:.2f}x | "
                      + " | ".join(f"{t:.2f}" for t in works)
                      + f" | {works[0] / works[-1]:.2f}x | "
                      + " | ".join("" if t is None else f"{t:.2f}" for t in unifying) + " |")
        n = args.workers[-1]
        section = size // args.sections
        copy = COPY.format(size=section, times=max(1, (5 << 30) // section))
        print(f"\nload average {os.getloadavg()[0]:.1f} at the end; controls in {n} processes "
              f"at once against in a row: a pure CPU loop {control(SPIN, n, args.reps):.2f}x, "
              f"copies of {section / 1e6:.0f} MB (5 GiB in all) "
              f"{control(copy, n, args.reps):.2f}x")


if __name__ == "__main__":
    main()

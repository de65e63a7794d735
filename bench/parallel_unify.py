#!/usr/bin/env python3
"""Speed-up of many unifications from 1 to 2 (or more) worker processes.

    PYTHONPATH=<build>/python /usr/bin/python3 bench/parallel_unify.py \
        --luafxs <build>/tools/luafxs [--sections 16] [--planes 40] [--points 4000]

Writes a folder of cross-sections (each two overlapping scans with result
points), then times `luafxs batch SCANS -o OUT -j N` and, when Dask is
importable, examples/python/dask_unify.py with N workers, for N = 1 and 2
(--workers to change), blending off and on. Each figure is the median of
--reps runs; prints a Markdown table. Timing only: nothing is asserted.
"""

import argparse
import math
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
    started = time.perf_counter()
    subprocess.run(command, check=True, capture_output=True)
    return time.perf_counter() - started


def median_time(command, out, reps):
    times = []
    for _ in range(reps):
        shutil.rmtree(out, ignore_errors=True)
        out.mkdir()
        times.append(timed(command))
    return statistics.median(times)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--luafxs", required=True)
    parser.add_argument("--sections", type=int, default=16)
    parser.add_argument("--planes", type=int, default=40)
    parser.add_argument("--points", type=int, default=4000)
    parser.add_argument("--workers", type=int, nargs="+", default=[1, 2])
    parser.add_argument("--reps", type=int, default=3)
    args = parser.parse_args()
    try:
        import dask.distributed  # noqa: F401
        have_dask = True
    except ImportError:
        have_dask = False

    with tempfile.TemporaryDirectory(prefix="luanaf-parallel-") as tmp:
        scans, out = pathlib.Path(tmp) / "scans", pathlib.Path(tmp) / "out"
        write_sections(scans, args.sections, args.planes, args.points)
        size = sum(p.stat().st_size for p in scans.rglob("*.afxs"))
        print(f"{args.sections} cross-sections x 2 scans x {args.planes} planes x "
              f"{args.points} points ({size / 1e6:.0f} MB), median of {args.reps}\n")
        print("| runner | blending | " + " | ".join(f"{n} proc. (s)" for n in args.workers)
              + " | speed-up |")
        print("|---|---|" + "---|" * len(args.workers) + "---|")
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
                print(f"| {name} | {'on' if blend else 'off'} | "
                      + " | ".join(f"{t:.2f}" for t in times)
                      + f" | {times[0] / times[-1]:.2f}x |")


if __name__ == "__main__":
    main()

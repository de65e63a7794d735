"""Speed of `luafxs dump` to CSV and PLY beside numpy.savetxt of the same
arrays, and the peak memory of a JSON dump (a benchmark script, not a test;
nothing is asserted).

    PYTHONPATH=build/release/python /usr/bin/python3 bench/dump_bench.py \\
        build/release/tools/luafxs [--other OTHER_LUAFXS] [--planes N] [--points M]

Writes one file of N planes x 2 subsets x M points with every field, then
runs each case REPS times (medians; with --other the two tools alternate,
run for run, so that both see the same load on the machine). numpy.savetxt
writes the same numbers per point: the CSV's 16 columns (ids, index,
segment, point, normal, result point, distance, aux count and position) or
the PLY's 12, with its default format.
"""
import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np

import luanaf


def make_file(path, planes, points):
    t = np.linspace(0.0, 1.0, points)
    subsets = []
    for plane in range(planes):
        for subset in (1, 2):
            p = np.stack([np.cos(t * 6.2831) * 100 + subset, np.sin(t * 6.2831) * 100,
                          np.full(points, plane * 0.5)], axis=1)
            n = np.stack([np.cos(t * 6.2831), np.sin(t * 6.2831), np.zeros(points)], axis=1)
            subsets.append({"plane_id": plane, "subset_id": subset, "points": p, "normals": n,
                            "segments": np.array([points // 2, points], dtype=np.int32),
                            "aux_ctrl_pos": np.arange(points, dtype=np.uint32),
                            "aux_ctrl_counts": np.ones(points, dtype=np.uint32),
                            "res_points": p + 0.01, "distances": np.full(points, 0.0123)})
    luanaf.write(path, {"version": 1, "normal": [0, 0, 1], "num_planes": planes,
                        "dist_bw_planes": 0.5}, subsets)
    return subsets


def savetxt_columns(subsets, csv):
    rows = []
    for s in subsets:
        n = len(s["points"])
        ids = np.stack([np.full(n, s["plane_id"]), np.full(n, s["subset_id"])], axis=1)
        cols = [ids]
        if csv:
            seg = np.where(np.arange(n) < s["segments"][0], 0, 1)
            cols += [np.arange(n)[:, None], seg[:, None]]
        cols += [s["points"], s["normals"], s["res_points"], s["distances"][:, None]]
        if csv:
            cols += [s["aux_ctrl_counts"][:, None], s["aux_ctrl_pos"][:, None]]
        rows.append(np.hstack(cols).astype(np.float64))
    return np.vstack(rows)


def timed(fn):
    start = time.perf_counter()
    fn()
    return time.perf_counter() - start


def dump(tool, src, fmt, out):
    subprocess.run([tool, "dump", src, "--format", fmt, "-o", out], check=True)


def peak_rss_mb(tool, src, out):
    proc = subprocess.run(["/usr/bin/time", "-v", tool, "dump", src, "--format", "json", "-o", out],
                          check=True, capture_output=True, text=True)
    for line in proc.stderr.splitlines():
        if "Maximum resident set size" in line:
            return int(line.split(":")[1]) / 1024.0
    return float("nan")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("tool")
    ap.add_argument("--other")
    ap.add_argument("--planes", type=int, default=100)
    ap.add_argument("--points", type=int, default=5000)
    ap.add_argument("--reps", type=int, default=3)
    ap.add_argument("--json", action="store_true", help="also the JSON dump's time and memory")
    args = ap.parse_args()
    tools = [("this", args.tool)] + ([("other", args.other)] if args.other else [])
    with tempfile.TemporaryDirectory(dir=os.environ.get("TMPDIR", "/tmp")) as d:
        src = os.path.join(d, "dump.afxs")
        subsets = make_file(src, args.planes, args.points)
        print(f"file: {args.planes} planes x 2 x {args.points} points, "
              f"{os.path.getsize(src) / 1e6:.1f} MB; medians of {args.reps}")
        out = os.path.join(d, "out")
        for fmt, csv in (("csv", True), ("ply", False)):
            table = savetxt_columns(subsets, csv)
            floor = statistics.median(
                timed(lambda: np.savetxt(out, table, delimiter="," if csv else " "))
                for _ in range(args.reps))
            times = {name: [] for name, _ in tools}
            for _ in range(args.reps):
                for name, tool in tools:
                    times[name].append(timed(lambda: dump(tool, src, fmt, out)))
            size = os.path.getsize(out) / 1e6
            for name, _ in tools:
                t = statistics.median(times[name])
                print(f"{fmt:4} {name:5}: {t * 1000:8.0f} ms ({size:.0f} MB of text); "
                      f"numpy.savetxt {floor * 1000:.0f} ms; savetxt time / dump time "
                      f"{floor / t:.1f}")
        if args.json:
            for name, tool in tools:
                t = timed(lambda: dump(tool, src, "json", out))
                rss = peak_rss_mb(tool, src, out)
                print(f"json {name:5}: {t * 1000:8.0f} ms, peak RSS {rss:.0f} MB "
                      f"({os.path.getsize(out) / 1e6:.0f} MB of JSON)")


if __name__ == "__main__":
    sys.exit(main())

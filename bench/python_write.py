#!/usr/bin/python3
"""Times luanaf.write: PLANES x 2 subsets x POINTS points with every field,
written into a new file and removed untimed, in a process of its own per
round; with --other, another build of the module alternates with the first
(an A/B of the bindings). Medians of each round, then the median of the
rounds.

    /usr/bin/python3 bench/python_write.py build/release/python \
        [--other OTHER_BUILD/python] [--rounds 7] [--writes 9] [--dir DIR]

DIR (default: a temporary folder under the current one, so on its file
system) must be on the file system to measure; tmpfs differs from ext4.
"""

import argparse
import os
import statistics
import subprocess
import sys
import tempfile

CHILD = r"""
import os, statistics, sys, time
import numpy as np
sys.path.insert(0, sys.argv[1])
import luanaf
folder, writes, planes, points = sys.argv[2], int(sys.argv[3]), int(sys.argv[4]), int(sys.argv[5])
xyz = np.random.default_rng(1).random((points, 3))
records = [dict(plane_id=p, subset_id=s, points=xyz, normals=xyz, res_points=xyz,
                distances=xyz[:, 0].copy(), segments=np.array([points], dtype=np.int32))
           for p in range(planes) for s in range(2)]
times = []
for w in range(writes):
    path = os.path.join(folder, "write%d.afxs" % w)
    start = time.perf_counter()
    luanaf.write(path, {"num_planes": planes}, records)
    times.append((time.perf_counter() - start) * 1e3)
    os.remove(path)
print(statistics.median(times))
"""


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("module", help="the folder that holds the luanaf package")
    parser.add_argument("--other", help="another build's folder, alternating with the first")
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--writes", type=int, default=9, help="writes per round")
    parser.add_argument("--planes", type=int, default=100)
    parser.add_argument("--points", type=int, default=5000)
    parser.add_argument("--dir", default=".", help="where the files are written")
    args = parser.parse_args()

    builds = [args.module] + ([args.other] if args.other else [])
    medians = {build: [] for build in builds}
    with tempfile.TemporaryDirectory(dir=args.dir) as folder:
        for _ in range(args.rounds):
            for build in builds:
                out = subprocess.run(
                    [sys.executable, "-c", CHILD, os.path.abspath(build), folder,
                     str(args.writes), str(args.planes), str(args.points)],
                    check=True, capture_output=True, text=True).stdout
                medians[build].append(float(out))
    for build in builds:
        rounds = medians[build]
        print("%s: rounds %s ms, median %.1f ms" % (
            build, " ".join("%.1f" % m for m in rounds), statistics.median(rounds)))


if __name__ == "__main__":
    main()

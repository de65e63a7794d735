#!/usr/bin/env python3
"""Summarise the files of `luafxs demo DIR` and plot one plane to a PNG.

    luafxs demo /tmp/demo
    PYTHONPATH=<build>/python /usr/bin/python3 examples/python/summary.py /tmp/demo

The demo writes two scans (scan_a.afxs, scan_b.afxs) and their blended
unification (unified.afxs). This prints each file's header and records and
draws one plane of all three, before and after unification.
"""

import argparse
import pathlib
import sys

import numpy as np

import luanaf

FILES = ["scan_a.afxs", "scan_b.afxs", "unified.afxs"]


def summarise(path):
    with luanaf.open(path) as f:
        h = f.header
        subsets = sorted({s.subset_id for s in f})
        points = sum(len(s.points) for s in f)
        with_results = sum(1 for s in f if len(s.res_points))
        print(f"{path.name}:")
        print(f"  planes {h['num_planes']}, {h['dist_bw_planes']:g} apart, "
              f"normal {tuple(round(v, 6) for v in h['normal'])}")
        print(f"  {len(f)} plane subsets (subsets {subsets}), {points} points, "
              f"{with_results} with result points, {len(f.cameras)} cameras")
        if len(f):
            d = np.concatenate([s.distances for s in f if len(s.distances)] or [np.empty(0)])
            if d.size:
                print(f"  distances: min {d.min():.4f}, mean {d.mean():.4f}, max {d.max():.4f}")


def plane_contours(path, plane_id):
    """(subset id, points) of every subset of one plane."""
    with luanaf.open(path, fields="points") as f:
        return [(s.subset_id, np.array(s.points)) for s in f if s.plane_id == plane_id]


def plot(directory, plane_id, png):
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    fig, (before, after) = plt.subplots(2, 1, figsize=(10, 6), sharex=True, sharey=True)
    for name, colour in (("scan_a.afxs", "tab:blue"), ("scan_b.afxs", "tab:orange")):
        for subset, pts in plane_contours(directory / name, plane_id):
            before.plot(pts[:, 0], pts[:, 1], ".", ms=2, color=colour,
                        label=f"{name} (subset {subset})")
    for subset, pts in plane_contours(directory / "unified.afxs", plane_id):
        after.plot(pts[:, 0], pts[:, 1], ".", ms=2, color="tab:green",
                   label=f"unified (subset {subset})")
    before.set_title(f"plane {plane_id}: the two scans")
    after.set_title(f"plane {plane_id}: unified")
    for ax in (before, after):
        ax.set_aspect("equal")
        ax.legend(loc="best", fontsize="small")
    fig.tight_layout()
    fig.savefig(png, dpi=120)
    print(f"plot of plane {plane_id} written to {png}")


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("dir", type=pathlib.Path, help="folder written by `luafxs demo`")
    parser.add_argument("--plane", type=int, default=20, help="plane to plot (default 20)")
    parser.add_argument("--png", type=pathlib.Path, help="output (default DIR/plane_N.png)")
    args = parser.parse_args(argv)
    missing = [n for n in FILES if not (args.dir / n).exists()]
    if missing:
        print(f"{args.dir}: missing {', '.join(missing)}; run `luafxs demo {args.dir}` first",
              file=sys.stderr)
        return 1
    try:
        for name in FILES:
            summarise(args.dir / name)
        plot(args.dir, args.plane, args.png or args.dir / f"plane_{args.plane}.png")
    except luanaf.Error as e:
        print(f"summary: {e}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""From a real scanned object to an inspected cross-section file.

Fetches the Stanford bunny (the npm package "bunny", public domain) into a
cache folder, writes it as a PLY mesh, and runs the luafxs path on it:

    luafxs slice bunny.ply --planes 40 --normal 0,1,0 -o nominal.afxs
    luafxs slice bunny.ply --planes 40 --normal 0,1,0 --view-split 150 -o scan.afxs
    luafxs compare scan-1.afxs nominal.afxs
    luafxs compare scan-2.afxs nominal.afxs
    luafxs unify --blend -o unified.afxs scan-1.afxs:1 scan-2.afxs:2
    luafxs compare unified.afxs nominal.afxs -o deviation.afxs --json
    luafxs plot scan-1.afxs scan-2.afxs unified.afxs --plane 20 -o plane20.svg

The two partial scans get their result points from the nominal slice (the
blending of overlapping contours works on result points), are unified with
blending, and the blended contours are compared with the full slice again.

Usage: bunny.py [--luafxs PATH] [--cache DIR] [--out DIR]
Exit code 0 on success, 77 when the package cannot be fetched, 1 otherwise.
The data is never stored in the repository: only in the cache folder.
"""
import argparse
import json
import os
import re
import shutil
import struct
import subprocess
import sys
import tarfile

SKIP = 77
PLANES = 40
NORMAL = "0,1,0"
VIEW_SPLIT = 150


def fetch(cache):
    """The bunny's vertices and triangles from the cached or fetched package."""
    os.makedirs(cache, exist_ok=True)
    packs = [f for f in os.listdir(cache) if f.startswith("bunny-") and f.endswith(".tgz")]
    if not packs:
        npm = shutil.which("npm")
        if npm is None:
            raise LookupError("npm is not installed")
        try:
            run = subprocess.run([npm, "pack", "bunny"], cwd=cache, capture_output=True,
                                 text=True, timeout=120)
        except subprocess.TimeoutExpired:
            raise LookupError("npm pack bunny timed out")
        packs = [f for f in os.listdir(cache) if f.startswith("bunny-") and f.endswith(".tgz")]
        if run.returncode != 0 or not packs:
            raise LookupError("npm pack bunny failed: " + (run.stderr.strip().splitlines() or ["?"])[-1])
    with tarfile.open(os.path.join(cache, sorted(packs)[-1])) as tar:
        source = tar.extractfile("package/index.js").read().decode()
    arrays = {}
    for name in ("positions", "cells"):
        match = re.search(r"exports\." + name + r"\s*=\s*(\[.*?\]\])", source, re.S)
        if match is None:
            raise ValueError("package/index.js holds no " + name)
        arrays[name] = json.loads(match.group(1))
    return arrays["positions"], arrays["cells"]


def write_ply(path, vertices, faces):
    """A binary little-endian PLY with float coordinates: the mesh reader
    keeps 32-bit coordinates, so the file holds exactly what it will read."""
    with open(path, "wb") as out:
        out.write(b"ply\nformat binary_little_endian 1.0\n")
        out.write(b"element vertex %d\nproperty float x\nproperty float y\nproperty float z\n"
                  % len(vertices))
        out.write(b"element face %d\nproperty list uchar int vertex_indices\nend_header\n"
                  % len(faces))
        for v in vertices:
            out.write(struct.pack("<3f", *v))
        for f in faces:
            out.write(struct.pack("<B3i", 3, *f))


def luafxs(tool, *args):
    """Runs one verb, shows the command and its output; stops on failure."""
    print("$ luafxs " + " ".join(os.path.basename(a) if os.path.sep in a else a for a in args), flush=True)
    run = subprocess.run([tool, *args], capture_output=True, text=True)
    sys.stdout.write(run.stdout)
    sys.stderr.write(run.stderr)
    sys.stdout.flush()
    if run.returncode != 0:
        raise RuntimeError("luafxs %s failed with exit code %d" % (args[0], run.returncode))
    return run.stdout


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--luafxs", default=shutil.which("luafxs") or "luafxs")
    parser.add_argument("--cache", default=os.path.join(here, "..", "build", "bunny-cache"))
    parser.add_argument("--out", default="bunny-out")
    args = parser.parse_args()
    try:
        vertices, faces = fetch(args.cache)
    except LookupError as e:
        print("skipped: the bunny could not be fetched (%s)" % e)
        return SKIP
    os.makedirs(args.out, exist_ok=True)
    p = lambda name: os.path.join(args.out, name)  # noqa: E731
    write_ply(p("bunny.ply"), vertices, faces)
    print("bunny: %d vertices, %d triangles -> %s" % (len(vertices), len(faces), p("bunny.ply")))
    for name in ("nominal.afxs", "scan-1.afxs", "scan-2.afxs", "unified.afxs", "deviation.afxs"):
        if os.path.exists(p(name)):
            os.remove(p(name))
    common = ["--planes", str(PLANES), "--normal", NORMAL]
    luafxs(args.luafxs, "slice", p("bunny.ply"), *common, "-o", p("nominal.afxs"))
    luafxs(args.luafxs, "slice", p("bunny.ply"), *common, "--view-split", str(VIEW_SPLIT),
           "-o", p("scan.afxs"))
    for scan in ("scan-1.afxs", "scan-2.afxs"):
        luafxs(args.luafxs, "compare", p(scan), p("nominal.afxs"))
    luafxs(args.luafxs, "unify", "--blend", "-o", p("unified.afxs"), p("scan-1.afxs") + ":1",
           p("scan-2.afxs") + ":2")
    summary = json.loads(luafxs(args.luafxs, "compare", p("unified.afxs"), p("nominal.afxs"),
                                "-o", p("deviation.afxs"), "--json"))
    luafxs(args.luafxs, "plot", p("scan-1.afxs"), p("scan-2.afxs"), p("unified.afxs"),
           "--plane", str(PLANES // 2), "-o", p("plane20.svg"))
    planes = [s for s in summary["planes"] if s["count"]]
    worst = max(planes, key=lambda s: abs(s["worst"]["distance"]))
    total = sum(s["count"] for s in planes)
    rms = (sum(s["rms"] ** 2 * s["count"] for s in planes) / total) ** 0.5
    print("summary: %d planes compared, %d points, overall RMS %.6f, worst %.6f on plane %d"
          % (len(planes), total, rms, worst["worst"]["distance"], worst["plane"]))
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (RuntimeError, ValueError) as e:
        print("bunny.py: %s" % e, file=sys.stderr)
        sys.exit(1)

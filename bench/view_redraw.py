#!/usr/bin/env python3
"""Redraw time of the luafxs viewer on a plane of 10^6 points (a benchmark,
not a test: it reports, it asserts nothing).

Usage (from the repository, after a release build with the Python module):
  PYTHONPATH=build/release/python /usr/bin/python3 bench/view_redraw.py \\
      build/release/tools/luafxs [POINTS]

Writes one file of two planes (a wavy closed contour of POINTS points with
normals and distances, in 100 segments; a second, smaller plane), runs
`luafxs view` on it, opens the page in headless Chromium and times
`draw()` (the whole redraw: grid, every layer, markers, overview, and a
pixel read back so that the drawing is finished inside the timing) at the
fitted view, zoomed in 20x, with colour by distance, and the pick of the
point under the cursor."""

import os
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np

import luanaf

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests",
                                "tools", "browser"))
import cdp  # noqa: E402


def contour(n, plane):
    t = np.linspace(0.0, 2 * np.pi, n, endpoint=False)
    r = 50 + 3 * np.sin(40 * t) + 0.5 * np.sin(400 * t)
    points = np.stack([r * np.cos(t), r * np.sin(t), np.full(n, 2.0 * plane)], axis=1)
    normals = np.stack([np.cos(t), np.sin(t), np.zeros(n)], axis=1)
    segments = np.linspace(n / 100, n, 100).astype(np.int32)
    segments[-1] = n
    return {"plane_id": plane, "subset_id": 1, "points": points, "normals": normals,
            "segments": segments, "distances": 0.1 * np.sin(7 * t)}


def timed(page, expression, repeat):
    times = []
    for _ in range(repeat):
        # Reading a pixel back makes the browser finish drawing inside the timing.
        times.append(page.eval("(() => { const t = performance.now(); %s;"
                               " document.getElementById('plot').getContext('2d')"
                               ".getImageData(0, 0, 1, 1);"
                               " return performance.now() - t; })()" % expression))
    return statistics.median(times), min(times), max(times)


def main():
    luafxs = sys.argv[1]
    points = int(sys.argv[2]) if len(sys.argv) > 2 else 1_000_000
    chromium = cdp.find_chromium()
    if not chromium:
        print("no Chromium: nothing measured")
        return 0
    folder = tempfile.mkdtemp(prefix="luafxs-view-bench-")
    data = os.path.join(folder, "large.afxs")
    html = os.path.join(folder, "view.html")
    luanaf.write(data, {"version": 1, "normal": (0, 0, 1), "num_planes": 2, "dist_bw_planes": 2},
                 [contour(points, 0), contour(1000, 1)], cameras=[[0, 0, 100]])
    started = time.monotonic()
    subprocess.run([luafxs, "view", data, "-o", html], check=True)
    build = time.monotonic() - started
    browser = cdp.Browser(chromium, timeout=120)
    try:
        page = browser.page(1200, 800)
        started = time.monotonic()
        page.open(html)
        load = time.monotonic() - started
        page.eval("luafxsView.setPlane(0)")
        fitted = timed(page, "luafxsView.draw()", 15)
        page.eval("luafxsView.state.scale *= 20")
        zoomed = timed(page, "luafxsView.draw()", 15)
        page.eval("luafxsView.fit(); document.getElementById('color-distance').checked = true")
        by_distance = timed(page, "luafxsView.draw()", 5)
        page.eval("document.getElementById('color-distance').checked = false")
        pick = timed(page, "luafxsView.pick(600, 400)", 15)
        problems = page.problems()
    finally:
        browser.close()
    print("points in the plane      %d" % points)
    print("view.html                %.1f MB, written in %.2f s" % (os.path.getsize(html) / 1e6, build))
    print("page load (decode)       %.2f s" % load)
    for name, (median, low, high) in (("redraw, fitted", fitted), ("redraw, zoomed 20x", zoomed),
                                      ("redraw, by distance", by_distance),
                                      ("pick under cursor", pick)):
        print("%-24s median %.1f ms (min %.1f, max %.1f)" % (name, median, low, high))
    if problems:
        print("page problems: %s" % problems)
    return 0


if __name__ == "__main__":
    sys.exit(main())

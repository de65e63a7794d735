#!/usr/bin/env python3
"""The viewer and the plots in a real browser (headless Chromium, no network).

Usage: view_browser_test.py LUAFXS OUTDIR
Makes the demo files in OUTDIR, opens view.html from disk and drives it like
a user (slider, arrow keys, legend, zoom buttons, wheel, drag, touch, the
cursor readout), fails on any console error or network request, and renders
the SVG plots, checking that they draw inside their axes. Screenshots are
left in OUTDIR/screenshots. Exit 77 (skipped) without a browser."""

import os
import shutil
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import cdp  # noqa: E402

SKIP = 77
WIDTH, HEIGHT = 1200, 760
LAYER0_COLOUR = (0x1F, 0x77, 0xB4)

failures = []


def check(condition, what):
    print(("ok   " if condition else "FAIL ") + what)
    if not condition:
        failures.append(what)


def run(luafxs, *args):
    done = subprocess.run([luafxs] + list(args), capture_output=True, text=True, timeout=60)
    if done.returncode != 0:
        raise RuntimeError("luafxs %s failed: %s" % (" ".join(args), done.stderr))


PIXELS = """(() => {
  const c = document.getElementById('plot');
  const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
  let ink = 0, hash = 0, layer0 = 0;
  for (let i = 0; i < d.length; i += 4) {
    if (d[i] < 250 || d[i + 1] < 250 || d[i + 2] < 250) ink++;
    if (d[i] === %d && d[i + 1] === %d && d[i + 2] === %d) layer0++;
    hash = (hash * 31 + d[i] + 7 * d[i + 1] + 13 * d[i + 2]) | 0;
  }
  return {ink: ink, hash: hash, layer0: layer0};
})()""" % LAYER0_COLOUR


def rect_of(page, selector):
    return page.eval("(() => { const r = document.querySelector(%r).getBoundingClientRect();"
                     " return {x: r.x, y: r.y, w: r.width, h: r.height}; })()" % selector)


def centre(rect):
    return rect["x"] + rect["w"] / 2, rect["y"] + rect["h"] / 2


def drive_viewer(page, html, shots):
    page.open(html)
    check(page.eval("typeof window.luafxsView") == "object", "the viewer script ran")
    state = lambda: page.eval("({plane: luafxsView.state.plane, scale: luafxsView.state.scale,"
                              " offU: luafxsView.state.offU, offV: luafxsView.state.offV})")
    first = page.eval(PIXELS)
    check(first["ink"] > 2000, "the first plane is drawn (%d inked pixels)" % first["ink"])

    # The slider, moved as a user would: focus it and press End.
    slider = rect_of(page, "#plane-slider")
    page.click(*centre(slider))
    moved = state()["plane"]
    page.key("End", "End", 35)
    last = state()["plane"]
    planes = page.eval("luafxsView.planes.length")
    check(moved > 0 and last == planes - 1, "the slider moves through the planes (%d, then %d of %d)"
          % (moved, last, planes))
    after = page.eval(PIXELS)
    check(after["hash"] != first["hash"], "moving the slider changes the drawn pixels")

    # Arrow keys, with the focus off the slider.
    page.click(5, 5)
    page.key("ArrowLeft", "ArrowLeft", 37)
    check(state()["plane"] == last - 1, "the left arrow key shows the previous plane")
    page.eval("luafxsView.setPlane(20)")
    page.screenshot(os.path.join(shots, "view.png"))

    # The legend: the first layer's colour disappears when its entry is clicked.
    before = page.eval(PIXELS)
    check(before["layer0"] > 50, "the first layer is drawn in its colour (%d pixels)"
          % before["layer0"])
    button = rect_of(page, "#legend button[data-layer='0']")
    page.click(*centre(button))
    hidden = page.eval(PIXELS)
    check(hidden["layer0"] == 0, "after its legend entry is clicked the first layer's colour is"
          " gone (%d pixels left)" % hidden["layer0"])
    page.click(*centre(button))
    check(page.eval(PIXELS)["layer0"] == before["layer0"], "a second click brings the layer back")

    # Zoom to the overlap of the first two layers.
    fitted = state()
    page.click(*centre(rect_of(page, "#zoom-overlap")))
    zoomed = state()
    check(zoomed["scale"] > fitted["scale"] * 1.5, "zoom to overlap zooms in (scale %.3g to %.3g)"
          % (fitted["scale"], zoomed["scale"]))
    check(page.eval("document.getElementById('status').textContent").startswith("overlap"),
          "the status line names the overlap")
    markers = page.eval("luafxsView.planes[20].parts[0].spacing * luafxsView.state.scale")
    check(markers >= 7, "zoomed in, the points are far enough apart for markers (%.1f px)" % markers)
    page.send("Runtime.evaluate", {"expression": "document.getElementById('color-distance').click()"})

    # The readout of the point under the cursor.
    point = page.eval("(() => { const s = luafxsView.state, p = luafxsView.planes[20].parts[0];"
                      " const r = document.getElementById('plot').getBoundingClientRect();"
                      " for (let i = 0; i < p.n; i++) { const x = (p.pts[2*i] - s.offU) * s.scale,"
                      " y = s.height - (p.pts[2*i+1] - s.offV) * s.scale;"
                      " if (x > 20 && y > 20 && x < s.width - 20 && y < s.height - 20)"
                      " return {x: r.x + x, y: r.y + y, i: i}; } return null; })()")
    check(point is not None, "a point of the first layer is in view")
    if point:
        page.mouse("mouseMoved", point["x"], point["y"])
        text = page.eval("document.getElementById('readout').textContent")
        check("file     scan_a.afxs" in text and "plane    20" in text and "index" in text
              and "distance" in text and "x y z" in text, "the readout names the point: %r" % text)
    page.screenshot(os.path.join(shots, "view-overlap.png"))

    # Wheel, drag and a two-finger pinch.
    page.eval("luafxsView.fit(); luafxsView.draw()")
    plot = rect_of(page, "#plot")
    cx, cy = centre(plot)
    s0 = state()
    page.mouse("mouseWheel", cx, cy, deltaX=0, deltaY=-400)
    page.eval("new Promise(r => requestAnimationFrame(() => r(0)))")
    check(state()["scale"] > s0["scale"] * 1.2, "the wheel zooms in")
    s1 = state()
    page.mouse("mouseMoved", cx, cy)
    page.mouse("mousePressed", cx, cy, button="left", clickCount=1)
    page.mouse("mouseMoved", cx + 120, cy + 40, button="left", buttons=1)
    page.mouse("mouseReleased", cx + 120, cy + 40, button="left", clickCount=1)
    s2 = state()
    check(s2["offU"] < s1["offU"] and s2["offV"] > s1["offV"], "dragging pans the view")
    page.send("Emulation.setTouchEmulationEnabled", {"enabled": True, "maxTouchPoints": 2})
    touch = lambda kind, pts: page.send("Input.dispatchTouchEvent", {
        "type": kind, "touchPoints": [{"x": x, "y": y, "id": i} for i, (x, y) in enumerate(pts)]})
    touch("touchStart", [(cx - 20, cy), (cx + 20, cy)])
    touch("touchMove", [(cx - 60, cy), (cx + 60, cy)])
    touch("touchMove", [(cx - 100, cy), (cx + 100, cy)])
    touch("touchEnd", [])
    page.eval("new Promise(r => requestAnimationFrame(() => r(0)))")
    check(state()["scale"] > s2["scale"] * 2, "a two-finger pinch zooms in (%.3g to %.3g)"
          % (s2["scale"], state()["scale"]))

    # The overview picks a plane by click.
    page.click(*centre(rect_of(page, "#overview")))
    check(state()["plane"] != 20, "a click on the overview of all planes picks another plane")

    problems = page.problems()
    check(not problems, "no console error and no network request: %s" % problems)


def ink_inside_axes(page, svg, shot):
    page.open(svg)
    frames = page.eval("[...document.querySelectorAll('g.axes > rect')].map(r => {"
                       " const b = r.getBoundingClientRect(); return {x: b.x, y: b.y, w: b.width,"
                       " h: b.height}; })")
    check(len(frames) >= 1, "%s has axes" % os.path.basename(svg))
    size = page.eval("({w: document.documentElement.getBoundingClientRect().width,"
                     " h: document.documentElement.getBoundingClientRect().height})")
    data = page.screenshot(shot, {"x": 0, "y": 0, "width": size["w"], "height": size["h"]})
    _, _, rows = cdp.png_pixels(data)
    for n, f in enumerate(frames):
        ink = 0
        for y in range(int(f["y"]) + 3, int(f["y"] + f["h"]) - 3):
            for x in range(int(f["x"]) + 3, int(f["x"] + f["w"]) - 3):
                r, g, b = rows[y][x]
                ink += 1 if min(r, g, b) < 240 else 0
        check(ink > 300, "%s panel %d draws inside its axes (%d inked pixels)"
              % (os.path.basename(svg), n, ink))
    check(not page.problems(), "no error rendering %s" % os.path.basename(svg))


def main():
    luafxs, out = sys.argv[1], sys.argv[2]
    chromium = cdp.find_chromium()
    if not chromium:
        print("SKIPPED: no Chromium found (apt-get install chromium, or set LUAFXS_CHROMIUM)")
        return SKIP
    shutil.rmtree(out, ignore_errors=True)
    shots = os.path.join(out, "screenshots")
    os.makedirs(shots)
    demo = os.path.join(out, "demo")
    run(luafxs, "demo", demo)
    inputs = [os.path.join(demo, n) for n in ("scan_a.afxs", "scan_b.afxs", "unified.afxs")]
    plots = {
        "plot-overlap.svg": ["--plane", "20", "--zoom", "overlap"],
        "plot-planes.svg": ["--planes", "0,13,26,39", "--color-by", "distance"],
    }
    for name, options in plots.items():
        run(luafxs, "plot", *inputs, *options, "-o", os.path.join(out, name))
    try:
        browser = cdp.Browser(chromium)
        page = browser.page(WIDTH, HEIGHT)
    except Exception as e:  # noqa: BLE001 - any failure to start is a skip
        print("SKIPPED: Chromium could not be started: %s" % e)
        return SKIP
    try:
        drive_viewer(page, os.path.join(demo, "view.html"), shots)
        for name in ["plane_before.svg", "plane_after.svg"]:
            ink_inside_axes(page, os.path.join(demo, name),
                            os.path.join(shots, name.replace(".svg", ".png")))
        for name in plots:
            ink_inside_axes(page, os.path.join(out, name),
                            os.path.join(shots, name.replace(".svg", ".png")))
    finally:
        browser.close()
    print("%d failed" % len(failures) if failures else "all passed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

"""examples/python/summary.py on the files of `luafxs demo`."""

import os
import pathlib
import subprocess
import sys

import pytest

import luanaf

ROOT = pathlib.Path(__file__).resolve().parents[2]
LUAFXS = os.environ.get("LUANAF_LUAFXS")


@pytest.mark.skipif(not LUAFXS, reason="the luafxs tool was not built")
def test_summary_prints_every_file_and_writes_the_plot(tmp_path):
    pytest.importorskip("matplotlib")
    demo = tmp_path / "demo"
    subprocess.run([LUAFXS, "demo", str(demo)], check=True, capture_output=True)
    png = tmp_path / "plane.png"
    run = subprocess.run(
        [sys.executable, str(ROOT / "examples" / "python" / "summary.py"), str(demo),
         "--plane", "3", "--png", str(png)],
        check=True, capture_output=True, text=True,
    )
    for name in ("scan_a.afxs", "scan_b.afxs", "unified.afxs"):
        assert name + ":" in run.stdout
    with luanaf.open(demo / "scan_a.afxs") as f:
        assert f"{len(f)} plane subsets" in run.stdout
    assert png.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"


def test_summary_on_a_folder_without_demo_files_fails_cleanly(tmp_path):
    run = subprocess.run(
        [sys.executable, str(ROOT / "examples" / "python" / "summary.py"), str(tmp_path)],
        capture_output=True, text=True,
    )
    assert run.returncode == 1
    assert "luafxs demo" in run.stderr

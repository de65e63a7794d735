"""examples/python/dask_unify.py on a small folder of cross-sections."""

import pathlib
import re
import subprocess
import sys

import pytest

import luanaf
from conftest import make_plane, write_file

ROOT = pathlib.Path(__file__).resolve().parents[2]


def test_every_cross_section_of_a_folder_is_unified(tmp_path):
    pytest.importorskip("dask.distributed", reason="dask is not importable (python3-distributed)")
    scans, out = tmp_path / "scans", tmp_path / "out"
    out.mkdir()
    for s in range(3):
        sub = scans / f"xs{s}"
        sub.mkdir(parents=True)
        for subset in (1, 2):
            write_file(sub / f"scan{subset}.afxs", [make_plane(p, subset) for p in range(2 + s)])
    (scans / "empty").mkdir()
    run = subprocess.run(
        [sys.executable, str(ROOT / "examples" / "python" / "dask_unify.py"), str(scans),
         str(out), "-j", "2"],
        capture_output=True, text=True, timeout=300,
    )
    assert run.returncode == 0, run.stderr
    assert "dask: 3 cross-sections, 2 workers, 0 failed" in run.stdout
    summary = re.search(r"\(([0-9.]+) s of work once the cluster was up and warm; "
                        r"([0-9.]+) s in luanaf.unify, summed over the workers\)", run.stdout)
    assert summary, run.stdout
    assert float(summary.group(2)) <= 2 * float(summary.group(1)) + 0.01
    for s in range(3):
        reference = tmp_path / f"ref{s}.afxs"
        luanaf.unify(sorted(str(p) for p in (scans / f"xs{s}").glob("*.afxs")), reference)
        assert (out / f"xs{s}.afxs").read_bytes() == reference.read_bytes()
    assert not (out / "empty.afxs").exists()

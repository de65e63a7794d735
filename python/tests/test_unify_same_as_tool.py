"""luanaf.unify and `luafxs unify` call the same library function: the same
inputs give the same bytes, and both refuse the same things."""

import json
import os
import subprocess

import pytest

import luanaf
from conftest import make_plane, write_file
from test_unify import HEADER, scan

LUAFXS = os.environ.get("LUANAF_LUAFXS")
pytestmark = pytest.mark.skipif(not LUAFXS, reason="the luafxs tool was not built")


def tool_unify(output, inputs, *options):
    return subprocess.run([LUAFXS, "unify", *options, "-o", str(output), *map(str, inputs)],
                          capture_output=True, text=True)


def python_unify(output, inputs, **options):
    try:
        luanaf.unify(list(inputs), output, **options)
        return None
    except (luanaf.Error, ValueError) as e:
        return e


@pytest.fixture
def scans(tmp_path):
    p = write_file(tmp_path / "p.afxs", scan(1, 0.0, 100.0, 50.0), header=HEADER)
    q = write_file(tmp_path / "q.afxs", scan(2, 60.0, 160.0, 50.1), header=HEADER)
    return p, q


def test_the_same_inputs_give_the_same_bytes(tmp_path, scans):
    run = tool_unify(tmp_path / "tool.afxs", scans)
    assert run.returncode == 0, run.stderr
    luanaf.unify(list(scans), tmp_path / "python.afxs")
    assert (tmp_path / "tool.afxs").read_bytes() == (tmp_path / "python.afxs").read_bytes()


def test_the_same_blend_gives_the_same_bytes(tmp_path, scans):
    p, q = scans
    run = tool_unify(tmp_path / "tool.afxs", [f"{p}:1", f"{q}:2"], "--blend")
    assert run.returncode == 0, run.stderr
    summary = luanaf.unify([p, q], tmp_path / "python.afxs", output_ids=[1, 2], blend=True)
    assert summary.planes_blended == 3
    assert "planes blended    3\n" in run.stdout
    assert (tmp_path / "tool.afxs").read_bytes() == (tmp_path / "python.afxs").read_bytes()


def test_both_carry_the_first_inputs_version(tmp_path, scans):
    tool_unify(tmp_path / "tool.afxs", scans)
    luanaf.unify(list(scans), tmp_path / "python.afxs")
    for name in ("tool.afxs", "python.afxs"):
        info = subprocess.run([LUAFXS, "info", "--json", str(tmp_path / name)],
                              capture_output=True, text=True, check=True)
        assert json.loads(info.stdout)["header"]["version"] == HEADER["version"]


def refused_by_both(tmp_path, inputs, tool_args=(), **python_options):
    out_tool, out_python = tmp_path / "tool.afxs", tmp_path / "python.afxs"
    run = tool_unify(out_tool, inputs, *tool_args)
    error = python_unify(out_python, inputs, **python_options)
    assert run.returncode != 0
    assert error is not None
    assert not out_tool.exists() and not out_python.exists()
    return run, error


def test_both_refuse_a_plane_no_input_has_when_blending(tmp_path):
    a = write_file(tmp_path / "a.afxs", [make_plane(0, 1), make_plane(0, 1), make_plane(2, 1)])
    b = write_file(tmp_path / "b.afxs", [make_plane(0, 2)])
    run = tool_unify(tmp_path / "tool.afxs", [f"{a}:1", f"{b}:2"], "--blend")
    error = python_unify(tmp_path / "python.afxs", [a, b], output_ids=[1, 2], blend=True)
    assert run.returncode == 1
    assert "no input has plane 1" in run.stderr
    assert "no input has plane 1" in str(error)
    assert not (tmp_path / "tool.afxs").exists() and not (tmp_path / "python.afxs").exists()


def test_both_refuse_a_plane_beyond_the_slots(tmp_path):
    a = write_file(tmp_path / "a.afxs", [make_plane(5, 1)])
    b = write_file(tmp_path / "b.afxs", [make_plane(5, 2)])
    run, error = refused_by_both(tmp_path, [a, b])
    assert "beyond" in run.stderr and "beyond" in str(error)


def test_both_refuse_a_damaged_input_and_keep_it(tmp_path, scans):
    p, q = scans
    data = q.read_bytes()[:-9]
    q.write_bytes(data)
    refused_by_both(tmp_path, [p, q])
    assert q.read_bytes() == data


def test_both_refuse_an_input_as_output(tmp_path, scans):
    p, q = scans
    before = q.read_bytes()
    assert tool_unify(q, [p, q]).returncode == 1
    assert isinstance(python_unify(q, [p, q]), ValueError)
    assert q.read_bytes() == before


def test_both_give_the_same_warnings(tmp_path):
    bare = [dict(make_plane(i, 1), res_points=None, distances=None) for i in range(2)]
    a = write_file(tmp_path / "a.afxs", bare)
    b = write_file(tmp_path / "b.afxs", [dict(p, subset_id=2) for p in bare])
    run = tool_unify(tmp_path / "tool.afxs", [f"{a}:1", f"{b}:2"], "--blend")
    summary = luanaf.unify([a, b], tmp_path / "python.afxs", output_ids=[1, 2], blend=True)
    assert summary.warnings
    for text in summary.warnings:
        assert "warning: " + text in run.stderr

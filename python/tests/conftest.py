"""Shared helpers of the luanaf tests: sample files, synthetic planes, file damage."""

import json
import math
import os
import pathlib
import shutil
import stat

import numpy as np
import pytest

import luanaf

DATA_DIR = pathlib.Path(
    os.environ.get(
        "LUANAF_TEST_DATA_DIR",
        pathlib.Path(__file__).resolve().parents[2] / "tests" / "data",
    )
)
SAMPLES = ["all_fields", "with_results"]


def sample_json(name):
    with open(DATA_DIR / (name + ".json"), encoding="utf-8") as f:
        return json.load(f)


@pytest.fixture(autouse=True)
def xyz_dumps_in_test_folder(tmp_path):
    """Blending writes diagnostic point files; keep them in the test's folder."""
    folder = tmp_path / "xyz"
    folder.mkdir()
    luanaf.set_xyz_dump_directory(str(folder))
    yield folder
    luanaf.set_xyz_dump_directory(None)


@pytest.fixture
def copy_sample(tmp_path):
    """Copies a checked-in sample into the test's own folder."""

    def copy(name):
        target = tmp_path / (name + ".afxs")
        shutil.copyfile(DATA_DIR / (name + ".afxs"), target)
        return target

    return copy


def arc(radius, first_deg, last_deg, step_deg, z=0.0):
    """Points and outward normals of a circular arc in the plane z."""
    angles = np.radians(np.arange(first_deg, last_deg + step_deg / 2, step_deg))
    normals = np.stack([np.cos(angles), np.sin(angles), np.zeros_like(angles)], axis=1)
    points = normals * radius
    points[:, 2] = z
    return points, normals


def make_plane(plane_id=0, subset_id=1, n=5, offset=0.0, **extra):
    """A small plane with every field group filled."""
    points = np.arange(n * 3, dtype=np.float64).reshape(n, 3) + offset
    plane = {
        "plane_id": plane_id,
        "subset_id": subset_id,
        "points": points,
        "normals": np.tile([0.0, 0.0, 1.0], (n, 1)),
        "segments": np.array([n // 2, n], dtype=np.int32),
        "aux_ctrl_pos": np.arange(100, 100 + n, dtype=np.uint32),
        "aux_ctrl_counts": np.ones(n, dtype=np.uint32),
        "res_points": points + 0.25,
        "distances": np.linspace(0.0, 1.0, n),
    }
    plane.update(extra)
    return plane


HEADER = {
    "version": 2,
    "point": (1.5, -2.0, 3.25),
    "normal": (0.0, 0.0, 1.0),
    "num_planes": 3,
    "dist_bw_planes": 0.5,
}


def write_file(path, planes, header=HEADER, cameras=None):
    luanaf.write(path, header, planes, cameras)
    return path


@pytest.fixture
def small_file(tmp_path):
    """A file of two planes with every field group."""
    return write_file(tmp_path / "small.afxs", [make_plane(0), make_plane(1, offset=10.0)])


def set_read_only(path):
    os.chmod(path, stat.S_IRUSR | stat.S_IRGRP)


def restore_writable(path):
    os.chmod(path, stat.S_IRUSR | stat.S_IWUSR)


def temporaries(folder):
    """Names of temporary files a writer could have left in folder."""
    return sorted(p.name for p in pathlib.Path(folder).iterdir() if p.name.endswith(".tmp"))


def snapshot(*paths):
    """Bytes of each file (None for a missing one), to compare after a call."""
    return [pathlib.Path(p).read_bytes() if pathlib.Path(p).is_file() else None for p in paths]

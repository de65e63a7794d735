"""The array cache: off unless turned on; when on, closed files' large arrays serve later
loads, bounded by a limit."""

import gc

import numpy as np
import pytest

import luanaf
from conftest import make_plane, write_file


@pytest.fixture
def cache():
    limit = luanaf.array_cache_limit()
    enabled = luanaf.array_cache_enabled()
    luanaf.clear_array_cache()
    luanaf.set_array_cache_enabled(True)
    yield
    luanaf.set_array_cache_limit(limit)
    luanaf.set_array_cache_enabled(enabled)
    luanaf.clear_array_cache()


def load_all(path):
    with luanaf.open(path) as f:
        points = [s.points.copy() for s in f]
    gc.collect()
    return points


def test_arrays_of_a_collected_file_are_kept_and_values_stay_exact(tmp_path, cache):
    planes = [make_plane(i, n=5000, offset=float(i)) for i in range(3)]
    path = write_file(tmp_path / "big.afxs", planes)
    first = load_all(path)
    assert luanaf.array_cache_bytes() > 0
    second = load_all(path)
    for got, plane in zip(second, planes):
        np.testing.assert_array_equal(got, plane["points"])
    assert len(first) == len(second) == 3


def test_a_view_keeps_its_array_out_of_the_cache(tmp_path, cache):
    path = write_file(tmp_path / "big.afxs", [make_plane(0, n=5000)])
    f = luanaf.open(path)
    view = f[0].points
    f.close()
    del f
    gc.collect()
    assert luanaf.array_cache_bytes() == 0
    np.testing.assert_array_equal(view, make_plane(0, n=5000)["points"])


def test_limit_zero_turns_the_cache_off(tmp_path, cache):
    path = write_file(tmp_path / "big.afxs", [make_plane(0, n=5000)])
    load_all(path)
    assert luanaf.array_cache_bytes() > 0
    luanaf.set_array_cache_limit(0)
    assert luanaf.array_cache_limit() == 0
    assert luanaf.array_cache_bytes() == 0
    load_all(path)
    assert luanaf.array_cache_bytes() == 0


def test_turned_off_nothing_of_a_collected_file_is_kept(tmp_path, cache):
    path = write_file(tmp_path / "big.afxs", [make_plane(0, n=5000)])
    load_all(path)
    assert luanaf.array_cache_bytes() > 0
    luanaf.set_array_cache_enabled(False)
    assert not luanaf.array_cache_enabled()
    assert luanaf.array_cache_bytes() == 0
    load_all(path)
    assert luanaf.array_cache_bytes() == 0

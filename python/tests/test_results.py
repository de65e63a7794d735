"""set_results() and flush() append results to an existing file."""

import numpy as np
import pytest

import luanaf
from conftest import make_plane, restore_writable, set_read_only, write_file


@pytest.fixture
def plain_file(tmp_path):
    """Two planes with points and segments only."""
    planes = [
        {k: v for k, v in make_plane(i).items() if k in ("plane_id", "subset_id", "points", "segments")}
        for i in range(2)
    ]
    return write_file(tmp_path / "plain.afxs", planes)


RES = np.arange(15, dtype=np.float64).reshape(5, 3) * 0.5
DIST = np.array([0.1, 0.2, 0.3, 0.4, 0.5])


@pytest.mark.parametrize(
    "res, dist, mask",
    [(RES, DIST, 48), (RES, None, 16), (None, DIST, 32)],
    ids=["both", "res_points", "distances"],
)
def test_flushed_results_are_read_back(plain_file, res, dist, mask):
    with luanaf.open(plain_file) as f:
        f[1].set_results(res_points=res, distances=dist)
        assert f[1].state & mask == mask
        f[1].flush()
    with luanaf.open(plain_file) as f:
        assert f[0].file_state == 3
        assert f[1].file_state == 3 | mask
        np.testing.assert_array_equal(f[1].res_points, RES if res is not None else np.empty((0, 3)))
        np.testing.assert_array_equal(f[1].distances, DIST if dist is not None else np.empty(0))


def test_results_set_in_memory_are_returned_before_flush(plain_file):
    with luanaf.open(plain_file) as f:
        f[0].set_results(distances=DIST)
        np.testing.assert_array_equal(f[0].distances, DIST)


def test_points_view_survives_set_results(plain_file):
    with luanaf.open(plain_file) as f:
        points = f[0].points
        expected = np.array(points)
        f[0].set_results(res_points=RES, distances=DIST)
        np.testing.assert_array_equal(points, expected)


def test_second_flush_raises(plain_file):
    with luanaf.open(plain_file) as f:
        f[0].set_results(distances=DIST)
        f[0].flush()
        with pytest.raises(luanaf.Error, match="already has results"):
            f[0].flush()


def test_flush_of_record_with_results_record_raises(copy_sample):
    path = copy_sample("with_results")
    before = path.read_bytes()
    with luanaf.open(path) as f:
        s = f.find(3, 1)
        s.set_results(distances=[1.0, 2.0, 3.0])
        with pytest.raises(luanaf.Error, match="already has results"):
            s.flush()
    assert path.read_bytes() == before


def test_flush_without_results_raises(plain_file):
    with luanaf.open(plain_file) as f:
        with pytest.raises(luanaf.Error, match="no results attached"):
            f[0].flush()


def test_set_results_needs_an_argument_of_the_right_shape(plain_file):
    with luanaf.open(plain_file) as f:
        with pytest.raises(ValueError):
            f[0].set_results()
        with pytest.raises(ValueError):
            f[0].set_results(res_points=np.zeros((5, 2)))
        with pytest.raises(ValueError):
            f[0].set_results(distances=np.zeros((5, 1)))
        with pytest.raises(ValueError):
            f[0].set_results(distances=[])
        assert f[0].state == 3


def test_flush_on_read_only_file_raises_and_leaves_it(plain_file):
    set_read_only(plain_file)
    before = plain_file.read_bytes()
    try:
        with luanaf.open(plain_file) as f:
            assert not f.writable
            f[0].set_results(distances=DIST)
            with pytest.raises(luanaf.Error) as info:
                f[0].flush()
            assert isinstance(info.value, PermissionError) or info.value.errno is not None
        assert plain_file.read_bytes() == before
    finally:
        restore_writable(plain_file)


def test_flush_after_close_raises(plain_file):
    f = luanaf.open(plain_file)
    f[0].set_results(distances=DIST)
    f.close()
    with pytest.raises(ValueError, match="closed"):
        f[0].flush()


def test_flush_results_writes_every_subset_with_new_results(plain_file):
    with luanaf.open(plain_file) as f:
        f[0].set_results(res_points=RES, distances=DIST)
        f[1].set_results(distances=DIST * 2)
        f.flush_results()
        f.flush_results()  # nothing new: nothing to do
        with pytest.raises(luanaf.Error, match="already has results"):
            f[0].flush()
    with luanaf.open(plain_file) as f:
        assert f[0].file_state == 3 | 48
        assert f[1].file_state == 3 | 32
        np.testing.assert_array_equal(f[0].res_points, RES)
        np.testing.assert_array_equal(f[1].distances, DIST * 2)


def test_flush_results_refuses_a_read_only_file(plain_file):
    set_read_only(plain_file)
    before = plain_file.read_bytes()
    try:
        with luanaf.open(plain_file) as f:
            f[0].set_results(distances=DIST)
            with pytest.raises(PermissionError):
                f.flush_results()
        assert plain_file.read_bytes() == before
    finally:
        restore_writable(plain_file)


def test_library_set_flush_results_is_all_or_nothing_per_call(plain_file):
    link = luanaf.LuAfxsUserLink(str(plain_file))
    data_set = luanaf.LuAfxsUserDataSet(link)
    data_set.load(3)
    records = list(data_set)
    records[0].setDistances(DIST)
    records[1].setDistances(DIST)
    assert records[0].hasUnflushedResults() and records[1].hasUnflushedResults()
    data_set.flushResults()
    assert not records[0].hasUnflushedResults() and not records[1].hasUnflushedResults()
    data_set.closefile()
    with luanaf.open(plain_file) as f:
        np.testing.assert_array_equal(f[1].distances, DIST)

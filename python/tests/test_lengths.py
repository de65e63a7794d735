"""write() and set_results() check every length and total that the file format
relates, and remove_fields() refuses a removal that would leave a damaged file;
nothing is written then."""

import numpy as np
import pytest

import luanaf
from conftest import HEADER, make_plane, snapshot, temporaries, write_file

N = 5


def plane(**change):
    p = make_plane(4, 6, n=N)
    p.update(change)
    return {k: v for k, v in p.items() if v is not None}


BAD_PLANES = {
    "normals shorter": (plane(normals=np.zeros((N - 1, 3))), "normals"),
    "res_points longer": (plane(res_points=np.zeros((N + 1, 3))), "res_points"),
    "distances shorter": (plane(distances=np.zeros(3)), "distances"),
    "distances against res_points without points": (
        plane(points=None, segments=None, normals=None, distances=np.zeros(3)),
        "res_points",
    ),
    "segments end before the last point": (plane(segments=np.array([2, 4], np.int32)), "segments"),
    "segments end past the last point": (plane(segments=np.array([2, 6], np.int32)), "segments"),
    "segments decrease": (plane(segments=np.array([3, 2, 5], np.int32)), "segments"),
    "segments negative": (plane(segments=np.array([-1, 5], np.int32)), "segments"),
    "segments without points": (plane(points=None, normals=None, res_points=None, distances=None),
                                "segments"),
    "aux counts add up to fewer positions": (
        plane(aux_ctrl_counts=np.array([1, 1], np.uint32)),
        "aux_ctrl_counts",
    ),
}


@pytest.mark.parametrize("case", sorted(BAD_PLANES))
def test_write_refuses_lengths_that_disagree(tmp_path, case):
    bad, field = BAD_PLANES[case]
    out = write_file(tmp_path / "out.afxs", [make_plane(0, 1)])
    before = snapshot(out)
    with pytest.raises(luanaf.DataError) as info:
        luanaf.write(out, HEADER, [make_plane(0, 1), bad])
    assert isinstance(info.value, ValueError)
    message = str(info.value)
    assert "plane 1 (plane_id 4, subset_id 6)" in message
    assert field in message
    assert snapshot(out) == before
    assert temporaries(tmp_path) == []


def test_segments_that_cover_exactly_the_points_are_written(tmp_path):
    p = plane(segments=np.array([0, 2, 2, 5], np.int32))
    with luanaf.open(write_file(tmp_path / "ok.afxs", [p])) as f:
        np.testing.assert_array_equal(f[0].segments, [0, 2, 2, 5])


def test_write_refuses_an_empty_plane_list(tmp_path):
    with pytest.raises(ValueError, match="no planes"):
        luanaf.write(tmp_path / "none.afxs", HEADER, [])
    assert not (tmp_path / "none.afxs").exists()


@pytest.mark.parametrize(
    "key, value",
    [("plane_id", -1), ("subset_id", -1), ("plane_id", 2**32), ("subset_id", 2**40)],
)
def test_write_refuses_ids_outside_u32(tmp_path, key, value):
    with pytest.raises(ValueError, match="%s: %d is out of range" % (key, value)):
        luanaf.write(tmp_path / "ids.afxs", HEADER, [make_plane(**{key: value})])
    assert not (tmp_path / "ids.afxs").exists()


def test_write_accepts_the_largest_ids(tmp_path):
    path = write_file(tmp_path / "max.afxs", [make_plane(2**32 - 1, 2**32 - 1)])
    with luanaf.open(path) as f:
        assert (f[0].plane_id, f[0].subset_id) == (2**32 - 1, 2**32 - 1)


@pytest.fixture
def plain_file(tmp_path):
    """Two planes of 5 points with points and segments only."""
    planes = [
        {k: v for k, v in make_plane(i, 1).items() if k in ("plane_id", "subset_id", "points", "segments")}
        for i in range(2)
    ]
    return write_file(tmp_path / "plain.afxs", planes)


@pytest.mark.parametrize(
    "args, field",
    [
        ({"res_points": np.zeros((3, 3))}, "res_points"),
        ({"distances": np.zeros(4)}, "distances"),
        ({"results": np.zeros((6, 3)), "distances": np.zeros(5)}, "res_points"),
        ({"res_points": np.zeros((5, 3)), "distances": np.zeros(180)}, "distances"),
    ],
    ids=["3-res-points", "4-distances", "6-results", "180-distances"],
)
def test_set_results_refuses_lengths_other_than_the_points(plain_file, args, field):
    before = snapshot(plain_file)
    with luanaf.open(plain_file) as f:
        with pytest.raises(luanaf.DataError) as info:
            f[1].set_results(**args)
        message = str(info.value)
        assert "plane 1 subset 1" in message and field in message and "5 points" in message
        assert f[1].state & (luanaf.MASK_RESPOINTS | luanaf.MASK_DISTANCES) == 0
        with pytest.raises(luanaf.Error, match="no results attached"):
            f[1].flush()
    assert snapshot(plain_file) == before


def test_set_results_without_points_compares_results_with_distances(tmp_path):
    path = write_file(tmp_path / "n.afxs", [{"plane_id": 0, "subset_id": 1, "normals": np.ones((4, 3))}])
    with luanaf.open(path) as f:
        f[0].set_results(res_points=np.zeros((4, 3)))
        with pytest.raises(luanaf.DataError, match="3 distances but 4 res_points"):
            f[0].set_results(distances=np.zeros(3))
        f[0].set_results(distances=np.zeros(4))
        f[0].flush()


def test_set_results_of_the_right_length_round_trips(plain_file):
    with luanaf.open(plain_file, fields=["segments"]) as f:  # points not loaded yet
        f[0].set_results(results=np.ones((5, 3)), distances=np.arange(5.0))
        f[0].flush()
    with luanaf.open(plain_file) as f:
        np.testing.assert_array_equal(f[0].results, np.ones((5, 3)))


@pytest.mark.parametrize(
    "names, named",
    [
        ("points", "segments"),
        (["points", "normals", "aux"], "segments"),
        ("all", "drop the record"),
    ],
)
def test_remove_fields_refuses_a_removal_that_damages(small_file, names, named):
    before = snapshot(small_file)
    with pytest.raises(luanaf.DataError) as info:
        luanaf.remove_fields(small_file, names)
    message = str(info.value)
    assert named in message
    assert "may be removed on their own: segments, normals, aux, results, distances" in message
    assert snapshot(small_file) == before
    assert temporaries(small_file.parent) == []


def test_remove_fields_of_points_with_their_segments_is_allowed(small_file):
    assert luanaf.remove_fields(small_file, ["points", "segments"]) is True
    with luanaf.open(small_file) as f:
        assert [s.file_state for s in f] == [4 | 8, 4 | 8]


def test_remove_fields_refuses_to_drop_a_record_with_nothing_left(tmp_path):
    path = write_file(
        tmp_path / "two.afxs",
        [make_plane(0, 1), {"plane_id": 1, "subset_id": 1, "normals": np.ones((2, 3))}],
    )
    before = snapshot(path)
    with pytest.raises(luanaf.DataError, match="plane 1 subset 1 holds only normals"):
        luanaf.remove_fields(path, "normals")
    assert snapshot(path) == before


def test_remove_fields_keeps_the_version(tmp_path):
    path = write_file(tmp_path / "v.afxs", [make_plane()], header=dict(HEADER, version=-3))
    luanaf.remove_fields(path, "normals")
    assert b"\nVER -3\n" in path.read_bytes()


def test_the_library_create_data_refuses_lengths_that_disagree(tmp_path):
    link = luanaf.LuAfxsCreateLink(str(tmp_path / "c.afxs"))
    link.setHeader(luanaf.LuAfxsHeader(HEADER))
    link.create(True)
    data = luanaf.LuAfxsCreateData(link, 2, 3)
    data.setPoints(np.zeros((5, 3)))
    data.setSegments(np.array([2, 4], np.int32))
    with pytest.raises(luanaf.DataError, match="plane 2 subset 3: segments end at 4"):
        data.flush(link)
    data.setSegments(np.array([2, 5], np.int32))
    data.setNormals(np.zeros((4, 3)))
    with pytest.raises(luanaf.DataError, match="normals has 4 entries but there are 5 points"):
        data.flush(link)
    data.setNormals(np.zeros((5, 3)))
    data.flush(link)
    link.release()
    link.closeFile(True)
    with luanaf.open(tmp_path / "c.afxs") as f:
        assert f[0].file_state == 1 | 2 | 4


def test_the_library_record_flush_refuses_results_of_another_length(plain_file):
    before = snapshot(plain_file)
    data_set = luanaf.LuAfxsUserDataSet(luanaf.LuAfxsUserLink(str(plain_file)))
    data_set.load(luanaf.MASK_SEGMENTS)
    record = data_set.find(0, 1)
    record.setResPoints(np.zeros((3, 3)))
    record.setDistances(np.zeros(5))
    with pytest.raises(luanaf.DataError, match="res_points has 3 entries but there are 5 points"):
        record.flush()
    data_set.closefile()
    assert snapshot(plain_file) == before


def test_the_library_remove_refuses_a_removal_that_damages(small_file):
    before = snapshot(small_file)
    data_set = luanaf.LuAfxsUserDataSet(luanaf.LuAfxsUserLink(str(small_file)))
    with pytest.raises(luanaf.DataError, match="remove segments together with points"):
        data_set.remove(luanaf.MASK_POINTS)
    data_set.closefile()
    assert snapshot(small_file) == before

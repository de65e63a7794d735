"""The arrays equal what the library reads from the checked-in samples (their JSON)."""

import gc

import numpy as np
import pytest

import luanaf
from conftest import DATA_DIR, SAMPLES, sample_json

VEC3_FIELDS = {"points": "points", "normals": "normals", "res_points": "resPoints"}
FLAT_FIELDS = {
    "segments": ("segments", np.int32),
    "aux_ctrl_pos": ("auxCtrlPos", np.uint32),
    "aux_ctrl_offsets": ("auxCtrlOffsets", np.uint32),
    "aux_ctrl_counts": ("auxCtrlCounts", np.uint32),
    "distances": ("distances", np.float64),
}


@pytest.fixture(params=SAMPLES)
def sample(request):
    return request.param


def test_header_matches_json(sample):
    expected = sample_json(sample)["header_as_read"]
    with luanaf.open(DATA_DIR / (sample + ".afxs")) as f:
        h = f.header
    assert h["point"] == tuple(expected["point"])
    assert h["normal"] == tuple(expected["normal"])
    assert h["num_planes"] == expected["numPlanes"]
    assert h["dist_bw_planes"] == expected["distBwPlanes"]


def test_cameras_match_json(sample):
    with luanaf.open(DATA_DIR / (sample + ".afxs")) as f:
        cameras = f.cameras
    assert cameras.dtype == np.float64
    np.testing.assert_array_equal(cameras, np.array(sample_json(sample)["cameras"]).reshape(-1, 3))


def test_records_come_in_load_order(sample):
    expected = sample_json(sample)["records_in_load_order"]
    with luanaf.open(DATA_DIR / (sample + ".afxs")) as f:
        ids = [(s.plane_id, s.subset_id) for s in f]
    assert ids == [(r["planeId"], r["subsetId"]) for r in expected]


def test_every_field_matches_json(sample):
    expected = sample_json(sample)["records_in_load_order"]
    with luanaf.open(DATA_DIR / (sample + ".afxs")) as f:
        for s, r in zip(f, expected):
            for attr, key in VEC3_FIELDS.items():
                a = getattr(s, attr)
                assert a.dtype == np.float64 and a.ndim == 2 and a.shape[1] == 3
                np.testing.assert_array_equal(a, np.array(r[key], dtype=np.float64).reshape(-1, 3))
            for attr, (key, dtype) in FLAT_FIELDS.items():
                a = getattr(s, attr)
                assert a.dtype == dtype and a.ndim == 1
                np.testing.assert_array_equal(a, np.array(r[key], dtype=dtype))
            assert s.state == r["state"]
            assert s.file_state == r["fileState"]


def test_views_are_read_only_and_keep_the_file_alive(sample):
    f = luanaf.open(DATA_DIR / (sample + ".afxs"))
    points = f[0].points
    expected = np.array(points)
    assert not points.flags.writeable
    assert not points.flags.owndata
    with pytest.raises(ValueError):
        points[0, 0] = 1.0
    del f
    gc.collect()
    np.testing.assert_array_equal(points, expected)


def test_arrays_stay_valid_after_close(sample):
    with luanaf.open(DATA_DIR / (sample + ".afxs")) as f:
        normals = f[0].normals
        subset = f[0]
    assert f.closed
    assert normals.shape[0] > 0
    np.testing.assert_array_equal(subset.normals, normals)


def test_unloaded_field_loads_on_first_access():
    expected = sample_json("all_fields")["records_in_load_order"][0]
    with luanaf.open(DATA_DIR / "all_fields.afxs", fields="points") as f:
        s = f[0]
        assert s.state == luanaf.MASK_POINTS
        np.testing.assert_array_equal(s.normals, np.array(expected["normals"]))
        assert s.state == luanaf.MASK_POINTS | luanaf.MASK_NORMALS
        assert s.file_state == expected["fileState"]


def test_unloaded_field_of_closed_file_raises():
    f = luanaf.open(DATA_DIR / "all_fields.afxs", fields=["points"])
    f.close()
    with pytest.raises(ValueError, match="closed"):
        f[0].normals


def test_find_and_indexing():
    with luanaf.open(DATA_DIR / "all_fields.afxs") as f:
        assert f.find(3, 1).plane_id == 3
        assert f.find(7, 2) is None
        assert f[-1].plane_id == f[len(f) - 1].plane_id
        assert len(f[1:3]) == 2
        with pytest.raises(IndexError):
            f[len(f)]


def test_opening_leaves_the_file_unchanged(copy_sample, sample):
    path = copy_sample(sample)
    before = path.read_bytes()
    with luanaf.open(path) as f:
        for s in f:
            s.points, s.res_points
    assert path.read_bytes() == before


def test_files_can_be_read_and_written_from_several_threads(tmp_path):
    import threading

    from conftest import make_plane, write_file

    expected = sample_json("all_fields")["records_in_load_order"]
    failures = []

    def work(n):
        try:
            for k in range(5):
                path = write_file(tmp_path / ("t%d_%d.afxs" % (n, k)), [make_plane(0, n)])
                with luanaf.open(path) as f:
                    assert f[0].subset_id == n
                with luanaf.open(DATA_DIR / "all_fields.afxs") as f:
                    assert len(f) == len(expected)
        except Exception as e:  # noqa: BLE001 - reported below
            failures.append(e)

    threads = [threading.Thread(target=work, args=(n,)) for n in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert failures == []

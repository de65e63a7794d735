"""The library's classes under their own names, step by step as in C++."""

import gc

import numpy as np
import pytest

import luanaf
from conftest import DATA_DIR, HEADER, make_plane, sample_json
from test_errors import damage


def write_with_classes(path, planes, cameras=None, after_create=None):
    link = luanaf.LuAfxsCreateLink(str(path))
    link.setHeader(luanaf.LuAfxsHeader(HEADER))
    if cameras is not None:
        link.setCameras(cameras)
    link.create(True)
    if after_create is not None:
        after_create(link)
    for p in planes:
        data = luanaf.LuAfxsCreateData(link, p["plane_id"], p["subset_id"])
        data.setPoints(p["points"])
        data.setNormals(p["normals"])
        data.setSegments(p["segments"])
        data.setAuxCtrlPos(p["aux_ctrl_pos"], p["aux_ctrl_counts"])
        data.setResPoints(p["res_points"])
        data.setDistances(p["distances"])
        data.flush(link)
    link.release()
    link.closeFile(True)
    assert link.isOK()
    return link.getState()


def test_file_written_with_the_classes_reads_back_in_the_package(tmp_path):
    planes = [make_plane(0), make_plane(1, offset=3.0)]
    path = tmp_path / "c.afxs"
    assert write_with_classes(path, planes, cameras=np.ones((2, 3))) == luanaf.MASK_ALL
    with luanaf.open(path) as f:
        assert f.header["dist_bw_planes"] == HEADER["dist_bw_planes"]
        np.testing.assert_array_equal(f.cameras, np.ones((2, 3)))
        for s, p in zip(f, planes):
            for key in ("points", "normals", "segments", "aux_ctrl_pos", "res_points", "distances"):
                np.testing.assert_array_equal(getattr(s, key), p[key], err_msg=key)


def test_data_set_reads_what_the_json_lists():
    expected = sample_json("with_results")["records_in_load_order"]
    link = luanaf.LuAfxsUserLink(str(DATA_DIR / "with_results.afxs"))
    data_set = luanaf.LuAfxsUserDataSet(link)
    data_set.load(luanaf.MASK_ALL)
    assert len(data_set) == len(expected)
    for record, r in zip(data_set, expected):
        plane = record.getPlaneData()
        assert (plane.planeId, plane.subsetId) == (r["planeId"], r["subsetId"])
        np.testing.assert_array_equal(plane.points, np.array(r["points"]).reshape(-1, 3))
        np.testing.assert_array_equal(plane.resPoints, np.array(r["resPoints"]).reshape(-1, 3))
        np.testing.assert_array_equal(plane.distances, np.array(r["distances"], np.float64))
        np.testing.assert_array_equal(plane.auxCtrlCounts, np.array(r["auxCtrlCounts"], np.uint32))
        assert plane.auxCtrlFirst.size == 0  # a reader never loads it
        assert (record.state(), record.fileState()) == (r["state"], r["fileState"])
    data_set.closefile()


def test_data_set_and_records_keep_their_owners_alive(small_file):
    data_set = luanaf.LuAfxsUserDataSet(luanaf.LuAfxsUserLink(str(small_file)))
    data_set.load(luanaf.MASK_POINTS)
    records = list(data_set)
    del data_set
    gc.collect()
    records[1].load(luanaf.MASK_NORMALS)
    assert records[1].state() == luanaf.MASK_POINTS | luanaf.MASK_NORMALS
    assert records[1].getPlaneData().normals.shape == (5, 3)


@pytest.mark.parametrize("how", ["bad identifier", "no records", "truncated", "bad end mark"])
def test_data_set_load_of_damaged_file_raises_instead_of_deleting(small_file, how):
    damaged = damage(small_file, how)
    data_set = luanaf.LuAfxsUserDataSet(luanaf.LuAfxsUserLink(str(small_file)))
    with pytest.raises(luanaf.Error):
        data_set.load(luanaf.MASK_ALL)
    with pytest.raises(luanaf.Error):
        data_set.remove(luanaf.MASK_NORMALS)
    assert small_file.read_bytes() == damaged


def test_verify_answers_without_deleting(small_file):
    damaged = damage(small_file, "bad identifier")
    assert luanaf.LuAfxsUserLink(str(small_file)).verify(False) is False
    assert small_file.read_bytes() == damaged


def test_record_results_flush_once(tmp_path):
    path = tmp_path / "r.afxs"
    luanaf.write(path, HEADER, [{"plane_id": 0, "subset_id": 1, "points": np.zeros((2, 3))}])
    data_set = luanaf.LuAfxsUserDataSet(luanaf.LuAfxsUserLink(str(path)))
    data_set.load(luanaf.MASK_ALL)
    record = data_set.find(0, 1)
    assert data_set.find(0, 2) is None
    record.setDistances(np.array([1.0, 2.0]))
    record.flush()
    with pytest.raises(luanaf.Error):
        record.flush()
    data_set.closefile()
    with luanaf.open(path) as f:
        np.testing.assert_array_equal(f[0].distances, [1.0, 2.0])


def test_create_data_flush_without_data_raises(tmp_path):
    link = luanaf.LuAfxsCreateLink(str(tmp_path / "n.afxs"))
    link.create(True)
    with pytest.raises(luanaf.Error):
        luanaf.LuAfxsCreateData(link, 0, 1).flush(link)


def test_plane_record_fields_copy_in_and_out():
    plane = luanaf.LuAfxsPlane()
    plane.points = [[1, 2, 3]]
    plane.segments = [1]
    out = plane.points
    out[0, 0] = 99.0
    np.testing.assert_array_equal(plane.points, [[1, 2, 3]])
    assert plane.segments.dtype == np.int32
    with pytest.raises(ValueError):
        plane.points = np.zeros((2, 2))


@pytest.mark.skipif(not hasattr(__import__("os"), "statvfs"), reason="POSIX block counts")
def test_reserved_room_changes_nothing_and_goes_back_at_the_close(tmp_path):
    import os

    planes = [make_plane(0), make_plane(1, offset=3.0)]
    plain = tmp_path / "plain.afxs"
    write_with_classes(plain, planes)

    early = luanaf.LuAfxsCreateLink(str(tmp_path / "early.afxs"))
    assert early.reserve(1 << 20) is False  # not created yet

    reserved = tmp_path / "reserved.afxs"

    def reserve(link):
        if not link.reserve(32 << 20):
            pytest.skip("the file system of tmp_path reserves nothing")
        assert os.stat(reserved).st_blocks * 512 >= 32 << 20

    write_with_classes(reserved, planes, after_create=reserve)
    assert reserved.read_bytes() == plain.read_bytes()
    assert os.stat(reserved).st_blocks * 512 < 1 << 20


def test_write_leaves_no_reserved_room_behind(tmp_path):
    import os

    path = tmp_path / "w.afxs"
    planes = [make_plane(i, n=3000) for i in range(8)]
    luanaf.write(path, HEADER, planes)
    # Past the mebibyte from which the writer reserves room ahead.
    assert path.stat().st_size > 1 << 20
    with luanaf.open(path) as f:
        assert len(f) == 8
    if hasattr(os, "statvfs"):
        assert os.stat(path).st_blocks * 512 <= path.stat().st_size + 64 * 1024

"""What write() puts into a file, open() reads back: every field, dtypes and shapes."""

import itertools

import numpy as np
import pytest

import luanaf
from conftest import DATA_DIR, HEADER, make_plane, sample_json, write_file

GROUPS = {
    "points": ["points"],
    "normals": ["normals"],
    "segments": ["segments"],
    "aux": ["aux_ctrl_pos", "aux_ctrl_counts"],
    "res_points": ["res_points"],
    "distances": ["distances"],
}
DTYPES = {
    "points": (np.float64, 2),
    "normals": (np.float64, 2),
    "res_points": (np.float64, 2),
    "segments": (np.int32, 1),
    "aux_ctrl_pos": (np.uint32, 1),
    "aux_ctrl_offsets": (np.uint32, 1),
    "aux_ctrl_counts": (np.uint32, 1),
    "distances": (np.float64, 1),
}


def plane_with(groups):
    full = make_plane(2, 7, n=6)
    if "points" not in groups:
        # Segments count points: without points they can only end at 0.
        full["segments"] = np.array([0], np.int32)
    keep = {"plane_id", "subset_id"}
    for g in groups:
        keep.update(GROUPS[g])
    return {k: v for k, v in full.items() if k in keep}


# Every non-empty combination of field groups: 63 files of one record each.
COMBINATIONS = [
    c for r in range(1, len(GROUPS) + 1) for c in itertools.combinations(GROUPS, r)
]


@pytest.mark.parametrize("groups", COMBINATIONS, ids=lambda c: "+".join(c))
def test_field_groups_round_trip(tmp_path, groups):
    plane = plane_with(groups)
    path = write_file(tmp_path / "one.afxs", [plane])
    with luanaf.open(path) as f:
        assert len(f) == 1
        s = f[0]
        assert (s.plane_id, s.subset_id) == (2, 7)
        mask = luanaf._mask(list(groups))
        assert s.file_state == mask
        for name in DTYPES:
            got = getattr(s, name)
            dtype, ndim = DTYPES[name]
            assert got.dtype == dtype and got.ndim == ndim
            if name == "aux_ctrl_offsets":
                want = (
                    np.arange(6, dtype=np.uint32) if "aux" in groups else np.empty(0, np.uint32)
                )
            elif name in plane:
                want = plane[name]
            else:
                want = np.empty((0, 3) if ndim == 2 else (0,), dtype=dtype)
            np.testing.assert_array_equal(got, want, err_msg=name)


def test_header_round_trips(tmp_path):
    path = write_file(tmp_path / "h.afxs", [make_plane()])
    with luanaf.open(path) as f:
        h = f.header
        assert f.update_supported
    for key in ("point", "normal", "num_planes", "dist_bw_planes"):
        assert h[key] == HEADER[key], key
    # The reader never keeps the VER value; it only allows updates.
    assert h["version"] == 0


def test_cameras_round_trip(tmp_path):
    cameras = np.array([[1.0, 2.0, 3.0], [-4.5, 0.0, 1e6]])
    path = write_file(tmp_path / "c.afxs", [make_plane()], cameras=cameras)
    with luanaf.open(path) as f:
        np.testing.assert_array_equal(f.cameras, cameras)


def test_file_without_cameras_reads_an_empty_table(small_file):
    with luanaf.open(small_file) as f:
        assert f.cameras.shape == (0, 3)


def test_two_subsets_of_one_plane_keep_their_order(tmp_path):
    path = write_file(tmp_path / "s.afxs", [make_plane(0, 1), make_plane(0, 2), make_plane(1, 1)])
    with luanaf.open(path) as f:
        assert [(s.plane_id, s.subset_id) for s in f] == [(0, 1), (0, 2), (1, 1)]


def test_lists_are_accepted_as_arrays(tmp_path):
    plane = {
        "plane_id": 0,
        "subset_id": 1,
        "points": [[0, 0, 0], [1, 1, 1]],
        "segments": [2],
        "distances": [0.5, 0.25],
    }
    with luanaf.open(write_file(tmp_path / "l.afxs", [plane])) as f:
        np.testing.assert_array_equal(f[0].points, [[0, 0, 0], [1, 1, 1]])
        np.testing.assert_array_equal(f[0].distances, [0.5, 0.25])


def test_non_contiguous_input_is_written_correctly(tmp_path):
    big = np.arange(30, dtype=np.float64).reshape(5, 6)
    points = big[:, ::2]  # strided view
    with luanaf.open(write_file(tmp_path / "v.afxs", [make_plane(points=points)])) as f:
        np.testing.assert_array_equal(f[0].points, points)


@pytest.mark.parametrize("name", ["all_fields", "with_results"])
def test_copying_a_sample_through_subsets_keeps_every_field(tmp_path, name):
    with luanaf.open(DATA_DIR / (name + ".afxs")) as f:
        header, cameras = f.header, f.cameras
        header["version"] = 2
        write_file(tmp_path / "copy.afxs", list(f), header=header, cameras=cameras)
    expected = sample_json(name)["records_in_load_order"]
    with luanaf.open(tmp_path / "copy.afxs") as g:
        assert len(g) == len(expected)
        for s, r in zip(g, expected):
            np.testing.assert_array_equal(s.points, np.array(r["points"]).reshape(-1, 3))
            np.testing.assert_array_equal(s.res_points, np.array(r["resPoints"]).reshape(-1, 3))
            np.testing.assert_array_equal(s.aux_ctrl_pos, np.array(r["auxCtrlPos"], np.uint32))
            assert s.file_state == r["fileState"]


def test_objects_with_attributes_are_accepted(tmp_path):
    class Plane:
        plane_id = 4
        subset_id = 9
        points = np.ones((3, 3))
        segments = np.array([3], np.int32)

    with luanaf.open(write_file(tmp_path / "o.afxs", [Plane()])) as f:
        assert (f[0].plane_id, f[0].subset_id) == (4, 9)
        assert f[0].file_state == luanaf.MASK_POINTS | luanaf.MASK_SEGMENTS


@pytest.mark.parametrize(
    "change, error",
    [
        ({"points": np.zeros((4, 2))}, ValueError),
        ({"normals": np.zeros(12)}, ValueError),
        ({"segments": [1.5, 2.5]}, TypeError),
        ({"segments": [2**40]}, ValueError),
        ({"aux_ctrl_counts": np.array([3, 9], np.uint32)}, ValueError),
        ({"aux_ctrl_offsets": np.array([0, 2, 2, 3, 4], np.uint32)}, ValueError),
        ({"subset_id": None}, ValueError),
    ],
    ids=["points-2-columns", "normals-flat", "segments-float", "segments-overflow",
         "aux-counts-too-large", "aux-offsets-disagree", "no-subset-id"],
)
def test_bad_planes_are_refused_before_anything_is_written(tmp_path, change, error):
    path = tmp_path / "bad.afxs"
    with pytest.raises(error):
        luanaf.write(path, HEADER, [make_plane(), make_plane(1, **change)])
    assert not path.exists()


@pytest.mark.parametrize(
    "header, plane",
    [({"numplanes": 3}, {}), ({}, {"point": np.zeros((1, 3))})],
    ids=["header-key", "plane-key"],
)
def test_misspelt_keys_are_refused(tmp_path, header, plane):
    path = tmp_path / "typo.afxs"
    with pytest.raises(ValueError, match="unknown keys"):
        luanaf.write(path, dict(HEADER, **header), [make_plane(**plane)])
    assert not path.exists()


def test_plane_without_data_is_refused_and_leaves_no_file(tmp_path):
    path = tmp_path / "empty.afxs"
    with pytest.raises(ValueError, match="no data"):
        luanaf.write(path, HEADER, [make_plane(), {"plane_id": 1, "subset_id": 1, "points": []}])
    assert not path.exists()


def test_write_into_missing_folder_raises_error_with_code(tmp_path):
    path = tmp_path / "no" / "such" / "dir.afxs"
    with pytest.raises(luanaf.Error) as info:
        luanaf.write(path, HEADER, [make_plane()])
    assert info.value.code == 0xC41B0003
    assert info.value.path == str(path)

"""unify() of two synthetic scans: two overlapping arcs of one circle per plane."""

import logging

import numpy as np
import pytest

import luanaf
from conftest import arc, make_plane, write_file

RADIUS = 50.0
STEP = 0.5  # degrees: about 0.44 units between points, well inside the coupling reach
PLANES = 3
HEADER = {
    "version": 1,
    "point": (0.0, 0.0, 0.0),
    "normal": (0.0, 0.0, 1.0),
    "num_planes": PLANES,
    "dist_bw_planes": 1.0,
}


def scan(subset_id, first_deg, last_deg, radius):
    """One data set: the same arc on every plane, with result points just
    outside the contour and a distance per point."""
    planes = []
    for plane_id in range(PLANES):
        points, normals = arc(radius, first_deg, last_deg, STEP, z=float(plane_id))
        planes.append(
            {
                "plane_id": plane_id,
                "subset_id": subset_id,
                "points": points,
                "normals": normals,
                "segments": np.array([len(points)], np.int32),
                "res_points": points + normals * 0.05,
                "distances": np.full(len(points), 0.05),
            }
        )
    return planes


@pytest.fixture
def two_scans(tmp_path):
    # P covers 0..100 degrees, Q 60..160 degrees, 0.1 units further out.
    p = write_file(tmp_path / "scan_p.afxs", scan(1, 0.0, 100.0, RADIUS), header=HEADER)
    q = write_file(tmp_path / "scan_q.afxs", scan(2, 60.0, 160.0, RADIUS + 0.1), header=HEADER)
    return p, q


def angles_deg(points):
    return np.degrees(np.arctan2(points[:, 1], points[:, 0]))


def test_without_blending_every_subset_is_copied(tmp_path, two_scans):
    p, q = two_scans
    out = tmp_path / "out.afxs"
    luanaf.unify([p, q], out, blend=False)
    with luanaf.open(out) as f, luanaf.open(p) as fp, luanaf.open(q) as fq:
        assert [(s.plane_id, s.subset_id) for s in f] == [
            (i, sid) for i in range(PLANES) for sid in (1, 2)
        ]
        for s in f:
            source = (fp if s.subset_id == 1 else fq).find(s.plane_id, s.subset_id)
            for name in ("points", "normals", "segments", "res_points", "distances"):
                np.testing.assert_array_equal(getattr(s, name), getattr(source, name), err_msg=name)
        assert f.header["normal"] == HEADER["normal"]


def test_blending_makes_one_contour_per_plane_over_both_arcs(tmp_path, two_scans):
    p, q = two_scans
    out = tmp_path / "blended.afxs"
    luanaf.unify([p, q], out, blend=True, xs_id=7)
    with luanaf.open(out) as f:
        assert [s.plane_id for s in f] == list(range(PLANES))
        for s in f:
            # Written under the first subset's id.
            assert s.subset_id == 1
            a = angles_deg(s.points)
            assert a.min() < 1.0 and a.max() > 159.0
            assert len(s.points) > len(np.arange(0.0, 100.0 + STEP / 2, STEP))
            r = np.linalg.norm(s.points[:, :2], axis=1)
            assert np.all(np.abs(r - RADIUS) < 0.2)
            assert len(s.distances) == len(s.points)
            assert s.segments[-1] == len(s.points)


def test_blending_writes_its_point_dumps_where_asked(tmp_path, two_scans, xyz_dumps_in_test_folder):
    luanaf.unify(list(two_scans), tmp_path / "out.afxs", blend=True, xs_id=7)
    names = sorted(p.name for p in xyz_dumps_in_test_folder.iterdir())
    assert names == ["P%d_S1_Id7_BLND_COP_BlendOnly.xyz" % i for i in range(PLANES)]


def test_inputs_are_left_unchanged(tmp_path, two_scans):
    before = [p.read_bytes() for p in two_scans]
    luanaf.unify(list(two_scans), tmp_path / "out.afxs", blend=True)
    assert [p.read_bytes() for p in two_scans] == before


def test_registry_is_cleared_so_the_same_id_can_be_unified_again(tmp_path, two_scans):
    p, q = two_scans
    luanaf.unify([p, q], tmp_path / "one.afxs", xs_id=3)
    luanaf.unify([q, p], tmp_path / "two.afxs", xs_id=3)
    with luanaf.open(tmp_path / "two.afxs") as f:
        assert [s.subset_id for s in f][:2] == [2, 1]


def test_output_ids_relabel_the_subsets(tmp_path, two_scans):
    out = tmp_path / "out.afxs"
    luanaf.unify(list(two_scans), out, output_ids=[10, 20])
    with luanaf.open(out) as f:
        assert sorted({s.subset_id for s in f}) == [10, 20]


def test_keep_subset_ids_lines_planes_up_by_record_order(tmp_path, two_scans):
    out = tmp_path / "out.afxs"
    luanaf.unify(list(two_scans), out, output_ids=[luanaf.KEEP_SUBSET_IDS] * 2)
    with luanaf.open(out) as f:
        assert [(s.plane_id, s.subset_id) for s in f] == [
            (i, sid) for i in range(PLANES) for sid in (1, 2)
        ]


def test_blending_needs_real_output_ids(tmp_path, two_scans):
    with pytest.raises(ValueError, match="real output id"):
        luanaf.unify(list(two_scans), tmp_path / "out.afxs", blend=True,
                     output_ids=[luanaf.KEEP_SUBSET_IDS] * 2)
    assert not (tmp_path / "out.afxs").exists()


def test_blending_refuses_a_plane_number_no_input_has(tmp_path):
    # Two subsets of plane 0 and one of plane 2: plane 1 would be an empty position.
    a = write_file(tmp_path / "a.afxs", [make_plane(0, 1), make_plane(0, 1), make_plane(2, 1)])
    b = write_file(tmp_path / "b.afxs", [make_plane(0, 2)])
    with pytest.raises(ValueError, match="no input has plane 1"):
        luanaf.unify([a, b], tmp_path / "out.afxs", blend=True)
    assert not (tmp_path / "out.afxs").exists()


def test_progress_and_skipped_blends_reach_logging(tmp_path, two_scans, caplog):
    # Without result points nothing can be blended: the library logs it at level 0.
    p, q = two_scans
    with luanaf.open(p) as fp, luanaf.open(q) as fq:
        planes = [dict(s.as_dict(), res_points=None, distances=None) for s in list(fp) + list(fq)]
    bare_p = write_file(tmp_path / "bare_p.afxs", [x for x in planes if x["subset_id"] == 1])
    bare_q = write_file(tmp_path / "bare_q.afxs", [x for x in planes if x["subset_id"] == 2])
    with caplog.at_level(logging.INFO, logger="luanaf"):
        luanaf.unify([bare_p, bare_q], tmp_path / "out.afxs", blend=True, xs_id=5)
    messages = [(r.levelno, r.getMessage()) for r in caplog.records if r.name == "luanaf"]
    assert (logging.INFO, "LuAfxsUserDataSet::BlendXSections()- XSection ID= 5, No Res Vectors, cancel Blend") in messages
    with luanaf.open(tmp_path / "out.afxs") as f:
        assert len(f) == 2 * PLANES


def test_output_must_not_be_an_input(two_scans):
    p, q = two_scans
    with pytest.raises(ValueError):
        luanaf.unify([p, q], q)


@pytest.mark.parametrize("ids", [[1], [1, 2, 3]])
def test_output_ids_need_one_id_per_input(tmp_path, two_scans, ids):
    with pytest.raises(ValueError):
        luanaf.unify(list(two_scans), tmp_path / "out.afxs", output_ids=ids)


def test_missing_input_raises(tmp_path, two_scans):
    with pytest.raises(luanaf.Error):
        luanaf.unify([two_scans[0], tmp_path / "none.afxs"], tmp_path / "out.afxs")
    assert not (tmp_path / "out.afxs").exists()


def test_plane_beyond_the_slots_is_refused_before_writing(tmp_path):
    a = write_file(tmp_path / "a.afxs", [make_plane(5, 1)])
    b = write_file(tmp_path / "b.afxs", [make_plane(5, 2)])
    with pytest.raises(ValueError, match="beyond"):
        luanaf.unify([a, b], tmp_path / "out.afxs")
    assert not (tmp_path / "out.afxs").exists()

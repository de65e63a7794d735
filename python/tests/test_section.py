"""luanaf.slice and luanaf.compare on numpy arrays."""
import numpy as np
import pytest

import luanaf

CUBE_V = np.array([[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0],
                   [0, 0, 1], [1, 0, 1], [1, 1, 1], [0, 1, 1]], dtype=np.float64)
CUBE_F = np.array([[0, 2, 1], [0, 3, 2], [4, 5, 6], [4, 6, 7], [0, 1, 5], [0, 5, 4],
                   [1, 2, 6], [1, 6, 5], [2, 3, 7], [2, 7, 6], [3, 0, 4], [3, 4, 7]])


def test_slice_gives_closed_loops_with_outward_normals_and_the_family():
    cut = luanaf.slice(CUBE_V, CUBE_F, planes=4)
    assert cut["family"]["num_planes"] == 4
    assert cut["family"]["dist_bw_planes"] == pytest.approx(0.25)
    assert [p["plane_id"] for p in cut["planes"]] == [0, 1, 2, 3]
    for p in cut["planes"]:
        assert p["closed"] == [True]
        assert np.array_equal(p["points"][0], p["points"][-1])
        outward = (p["points"][:, :2] - 0.5) * p["normals"][:, :2]
        assert (outward.sum(axis=1) > 0).all()
        assert p["faces"].shape == (len(p["points"]),)


def test_slice_by_spacing_from_an_origin():
    cut = luanaf.slice(CUBE_V, CUBE_F, spacing=0.5, origin=(0, 0, 0.25))
    assert cut["family"]["num_planes"] == 2
    assert [p["points"][0][2] for p in cut["planes"]] == [0.25, 0.75]


def test_slice_refuses_bad_arguments():
    with pytest.raises(ValueError):
        luanaf.slice(CUBE_V, CUBE_F)
    with pytest.raises(ValueError):
        luanaf.slice(CUBE_V, CUBE_F, planes=2, spacing=0.1)
    with pytest.raises(ValueError):
        luanaf.slice(CUBE_V, CUBE_F[:, :2], planes=2)
    with pytest.raises(ValueError):
        luanaf.slice(CUBE_V, CUBE_F + 8, planes=2)


def test_compare_gives_nearest_points_on_the_pieces_and_signed_distances():
    nominal = np.array([[-1, -1, 0], [1, -1, 0], [1, 1, 0], [-1, 1, 0], [-1, -1, 0]], float)
    measured = np.array([[1.2, 0.5, 0], [0.0, 0.9, 0]])
    normals = np.array([[1, 0, 0], [0, 1, 0]], float)
    r = luanaf.compare(measured, nominal, measured_normals=normals)
    assert np.allclose(r["res_points"], [[1, 0.5, 0], [0, 1, 0]])
    assert np.allclose(r["distances"], [0.2, -0.1])
    assert r["count"] == 2
    assert r["worst_index"] == 0
    assert r["rms"] == pytest.approx(np.sqrt((0.04 + 0.01) / 2))


def test_compare_of_a_slice_with_itself_is_zero():
    p = luanaf.slice(CUBE_V, CUBE_F, planes=3)["planes"][1]
    r = luanaf.compare(p["points"], p["points"], p["normals"], p["normals"], p["segments"],
                       p["segments"])
    assert (r["distances"] == 0).all()


def test_compare_refuses_an_empty_nominal():
    with pytest.raises(ValueError):
        luanaf.compare(np.zeros((1, 3)), np.zeros((0, 3)))

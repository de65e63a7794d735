"""remove_fields() rewrites a file without the named field groups."""

import numpy as np
import pytest

import luanaf
from conftest import make_plane, restore_writable, set_read_only, write_file


@pytest.mark.parametrize(
    "names, remaining",
    [
        ("normals", 1 | 2 | 8),
        (["aux"], 1 | 2 | 4),
        (["distances"], 1 | 2 | 4 | 8),
        (luanaf.MASK_NORMALS | luanaf.MASK_AUX, 1 | 2),
    ],
    ids=["normals", "aux", "distances", "mask"],
)
def test_removed_groups_are_gone_and_results_go_too(small_file, names, remaining):
    with luanaf.open(small_file) as f:
        points = [np.array(s.points) for s in f]
    assert luanaf.remove_fields(small_file, names) is True
    with luanaf.open(small_file) as f:
        assert [s.file_state for s in f] == [remaining, remaining]
        for s, p in zip(f, points):
            np.testing.assert_array_equal(s.points, p)
            assert s.res_points.shape == (0, 3)
            assert s.distances.shape == (0,)
    assert not small_file.with_name(small_file.name + ".tmp").exists()


def test_removing_absent_group_leaves_file_untouched(tmp_path):
    plane = {k: v for k, v in make_plane().items() if k in ("plane_id", "subset_id", "points")}
    path = write_file(tmp_path / "p.afxs", [plane])
    before = path.read_bytes()
    assert luanaf.remove_fields(path, ["normals", "distances"]) is False
    assert path.read_bytes() == before


def test_read_only_file_raises_and_stays(small_file):
    set_read_only(small_file)
    before = small_file.read_bytes()
    try:
        with pytest.raises(luanaf.Error):
            luanaf.remove_fields(small_file, "normals")
        assert small_file.read_bytes() == before
    finally:
        restore_writable(small_file)


@pytest.mark.parametrize("bad", [0, 64, ["colour"]])
def test_bad_masks_are_value_errors(small_file, bad):
    with pytest.raises(ValueError):
        luanaf.remove_fields(small_file, bad)

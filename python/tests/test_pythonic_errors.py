"""Errors are the Python exceptions of their cause and still luanaf.Error with the
library's code and path; arguments of the wrong kind are TypeError or ValueError;
unify returns its summary; field names are the tool's."""

import builtins
import errno
import os
import pickle

import numpy as np
import pytest

import luanaf
from conftest import HEADER, make_plane, write_file

CLASSES = [
    (luanaf.FileNotFoundError, builtins.FileNotFoundError),
    (luanaf.IsADirectoryError, builtins.IsADirectoryError),
    (luanaf.PermissionError, builtins.PermissionError),
    (luanaf.SameFileError, ValueError),
    (luanaf.DataError, ValueError),
    (luanaf.NotARegularFileError, OSError),
]


@pytest.mark.parametrize("cls, builtin", CLASSES, ids=lambda c: c.__name__)
def test_every_class_is_an_error_and_its_builtin(cls, builtin):
    assert issubclass(cls, luanaf.Error) and issubclass(cls, builtin)
    assert issubclass(luanaf.Error, OSError)


@pytest.mark.parametrize(
    "call",
    [
        lambda p: luanaf.open(p),
        lambda p: luanaf.remove_fields(p, "normals"),
        lambda p: luanaf.unify([p, p], p.with_name("out.afxs")),
    ],
    ids=["open", "remove_fields", "unify"],
)
def test_missing_file_is_a_file_not_found_error(tmp_path, call):
    path = tmp_path / "missing.afxs"
    with pytest.raises(FileNotFoundError) as info:
        call(path)
    e = info.value
    assert isinstance(e, luanaf.Error)
    assert (e.errno, e.path) == (errno.ENOENT, str(path))
    assert not path.exists()


def test_write_into_a_missing_folder_is_a_file_not_found_error_with_the_code(tmp_path):
    path = tmp_path / "no" / "folder.afxs"
    with pytest.raises(FileNotFoundError) as info:
        luanaf.write(path, HEADER, [make_plane()])
    assert isinstance(info.value, luanaf.Error)
    assert info.value.code == 0xC41B0003
    assert not (tmp_path / "no").exists()


def test_directory_opened_is_an_is_a_directory_error(tmp_path):
    with pytest.raises(IsADirectoryError) as info:
        luanaf.open(tmp_path)
    assert isinstance(info.value, luanaf.Error) and info.value.errno == errno.EISDIR


def test_read_only_flush_is_a_permission_error(small_file):
    os.chmod(small_file, 0o444)
    try:
        with luanaf.open(small_file, fields=["points"]) as f:
            f[0].set_results(distances=np.zeros(5))
            with pytest.raises(PermissionError) as info:
                f[0].flush()
        assert isinstance(info.value, luanaf.Error) and info.value.errno == errno.EACCES
    finally:
        os.chmod(small_file, 0o644)


def test_damaged_file_keeps_its_code(small_file):
    data = bytearray(small_file.read_bytes())
    data[0:1] = b"X"
    small_file.write_bytes(bytes(data))
    with pytest.raises(luanaf.Error) as info:
        luanaf.open(small_file)
    assert type(info.value) is luanaf.Error and info.value.code == 0xC41B0007


@pytest.mark.parametrize("cls", [c for c, _ in CLASSES] + [luanaf.Error], ids=lambda c: c.__name__)
def test_errors_survive_pickling_with_their_class(cls):
    e = cls("message", code=0xC41B0003, path="p.afxs", reports=[{"code": 1}], errno=errno.ENOENT)
    copy = pickle.loads(pickle.dumps(e))
    assert type(copy) is cls
    assert (copy.code, copy.path, copy.errno, copy.reports, str(copy)) == (
        e.code, e.path, e.errno, e.reports, str(e))


@pytest.mark.parametrize("inputs", ["a.afxs", b"a.afxs"], ids=["str", "bytes"])
def test_unify_with_one_string_is_a_type_error(tmp_path, inputs):
    with pytest.raises(TypeError, match="list of paths"):
        luanaf.unify(inputs, tmp_path / "out.afxs")
    assert not (tmp_path / "out.afxs").exists()


def test_unify_with_one_path_object_is_a_type_error(tmp_path, small_file):
    with pytest.raises(TypeError, match="list of paths"):
        luanaf.unify(small_file, tmp_path / "out.afxs")


@pytest.mark.parametrize(
    "call",
    [
        lambda f, t: f.find(-1, 1),
        lambda f, t: f.find(0, 2**32),
        lambda f, t: luanaf.unify([t / "a.afxs", t / "b.afxs"], t / "o.afxs", output_ids=[1, -2]),
        lambda f, t: luanaf.unify([t / "a.afxs", t / "b.afxs"], t / "o.afxs", xs_id=-1),
        lambda f, t: luanaf.write(t / "o.afxs", HEADER, [make_plane(plane_id=-1)]),
    ],
    ids=["find-plane", "find-subset", "output-id", "xs-id", "write-plane-id"],
)
def test_negative_or_too_large_ids_are_value_errors(tmp_path, call):
    write_file(tmp_path / "a.afxs", [make_plane(0, 1)])
    write_file(tmp_path / "b.afxs", [make_plane(0, 2)])
    with luanaf.open(tmp_path / "a.afxs") as f:
        with pytest.raises(ValueError, match="out of range") as info:
            call(f, tmp_path)
    assert "Unable to cast" not in str(info.value)
    assert not (tmp_path / "o.afxs").exists()


def test_find_with_a_float_id_is_a_type_error(small_file):
    with luanaf.open(small_file) as f:
        with pytest.raises(TypeError):
            f.find(0.5, 1)


def test_unify_returns_its_summary(tmp_path):
    a = write_file(tmp_path / "a.afxs", [make_plane(i, 1, n=40) for i in range(3)])
    b = write_file(tmp_path / "b.afxs", [make_plane(i, 2, n=40) for i in range(3)])
    plain = luanaf.unify([a, b], tmp_path / "plain.afxs")
    assert plain == {
        "planes_written": 6,
        "planes_blended": 0,
        "positions_skipped": 0,
        "failures": [],
        "warnings": [],
    }
    blended = luanaf.unify([a, b], tmp_path / "blended.afxs", blend=True)
    assert (blended.planes_written, blended.planes_blended, blended.positions_skipped) == (3, 3, 0)
    with luanaf.open(tmp_path / "blended.afxs") as f:
        assert len(f) == blended.planes_written


@pytest.mark.parametrize("name", ["results", "res_points"])
def test_the_tools_field_names_are_accepted(tmp_path, name):
    path = write_file(tmp_path / "r.afxs", [make_plane()])
    assert luanaf.remove_fields(path, [name]) is True
    with luanaf.open(path) as f:
        assert f[0].file_state == 1 | 2 | 4 | 8
    assert luanaf.FIELD_MASKS["results"] == luanaf.MASK_RESPOINTS
    assert luanaf.FIELD_MASKS["all"] == luanaf.MASK_ALL


def test_results_key_and_property(tmp_path):
    p = make_plane()
    p["results"] = p.pop("res_points")
    with luanaf.open(write_file(tmp_path / "k.afxs", [p])) as f:
        np.testing.assert_array_equal(f[0].results, p["results"])
        np.testing.assert_array_equal(f[0].res_points, p["results"])

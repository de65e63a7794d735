"""Every function that writes refuses an output that is an input, a directory, a
FIFO or a read-only file before anything is written, and leaves every input as
it was, byte for byte."""

import os
import stat

import numpy as np
import pytest

import luanaf
from conftest import (
    HEADER,
    make_plane,
    restore_writable,
    set_read_only,
    snapshot,
    temporaries,
    write_file,
)


@pytest.fixture
def inputs(tmp_path):
    a = write_file(tmp_path / "a.afxs", [make_plane(0, 1), make_plane(1, 1)])
    b = write_file(tmp_path / "b.afxs", [make_plane(0, 2), make_plane(1, 2)])
    return a, b


def do_write(output, inputs):
    luanaf.write(output, HEADER, [make_plane(0, 9, n=7)])


def do_unify(output, inputs):
    luanaf.unify(list(inputs), output)


def do_remove(output, inputs):
    luanaf.remove_fields(output, "normals")


WRITERS = {"write": do_write, "unify": do_unify, "remove_fields": do_remove}


def make_target(kind, tmp_path, inputs):
    """The output path of one case, made in tmp_path."""
    if kind == "input":
        return inputs[0]
    if kind == "symlink to an input":
        link = tmp_path / "link.afxs"
        link.symlink_to(inputs[0].name)
        return link
    if kind == "hard link to an input":
        link = tmp_path / "hard.afxs"
        os.link(inputs[0], link)
        return link
    if kind == "empty directory":
        folder = tmp_path / "empty.afxs"
        folder.mkdir()
        return folder
    if kind == "full directory":
        folder = tmp_path / "full.afxs"
        folder.mkdir()
        (folder / "keep.txt").write_text("keep me")
        return folder
    if kind == "fifo":
        fifo = tmp_path / "pipe.afxs"
        os.mkfifo(fifo)
        return fifo
    if kind == "read-only file":
        path = write_file(tmp_path / "ro.afxs", [make_plane(3, 3)])
        set_read_only(path)
        return path
    raise AssertionError(kind)


def directory_listing(folder):
    return sorted(
        (p.relative_to(folder).as_posix(), p.read_bytes() if p.is_file() else None)
        for p in folder.rglob("*")
    )


REFUSED = {
    "empty directory": luanaf.IsADirectoryError,
    "full directory": luanaf.IsADirectoryError,
    "fifo": luanaf.NotARegularFileError,
    "read-only file": luanaf.PermissionError,
}


@pytest.mark.parametrize("kind", sorted(REFUSED))
@pytest.mark.parametrize("writer", sorted(WRITERS))
def test_special_outputs_are_refused_before_anything_is_written(tmp_path, inputs, writer, kind):
    target = make_target(kind, tmp_path, inputs)
    before_inputs = snapshot(*inputs)
    before = directory_listing(tmp_path)
    mode = os.lstat(target).st_mode
    try:
        with pytest.raises(REFUSED[kind]) as info:
            WRITERS[writer](target, inputs)
        assert isinstance(info.value, luanaf.Error)
        assert info.value.path == str(target)
        assert info.value.errno is not None
        assert os.lstat(target).st_mode == mode
        assert directory_listing(tmp_path) == before
        assert snapshot(*inputs) == before_inputs
    finally:
        if kind == "read-only file":
            restore_writable(target)


@pytest.mark.parametrize("kind", ["input", "symlink to an input", "hard link to an input"])
def test_unify_refuses_an_input_as_output(tmp_path, inputs, kind):
    target = make_target(kind, tmp_path, inputs)
    before = directory_listing(tmp_path)
    with pytest.raises(luanaf.SameFileError) as info:
        luanaf.unify(list(inputs), target)
    assert isinstance(info.value, ValueError) and isinstance(info.value, luanaf.Error)
    assert "input" in str(info.value)
    assert directory_listing(tmp_path) == before
    if kind == "symlink to an input":
        assert target.is_symlink()


def test_unify_refuses_an_input_named_second(tmp_path, inputs):
    link = make_target("hard link to an input", tmp_path, (inputs[1],))
    before = snapshot(*inputs)
    with pytest.raises(luanaf.SameFileError):
        luanaf.unify(list(inputs), link)
    assert snapshot(*inputs) == before


def test_write_replaces_an_existing_file_whole(tmp_path, inputs):
    do_write(inputs[0], inputs)
    with luanaf.open(inputs[0]) as f:
        assert [(s.plane_id, s.subset_id, len(s.points)) for s in f] == [(0, 9, 7)]
    assert temporaries(tmp_path) == []


@pytest.mark.parametrize("writer", ["write", "remove_fields"])
def test_writing_through_a_symlink_rewrites_its_target_and_keeps_the_link(
    tmp_path, inputs, writer
):
    link = make_target("symlink to an input", tmp_path, inputs)
    other = snapshot(inputs[1])
    WRITERS[writer](link, inputs)
    assert link.is_symlink() and os.readlink(link) == inputs[0].name
    with luanaf.open(inputs[0]) as f:
        if writer == "write":
            assert [s.subset_id for s in f] == [9]
        else:
            assert all(s.file_state & luanaf.MASK_NORMALS == 0 for s in f)
    assert snapshot(inputs[1]) == other
    assert temporaries(tmp_path) == []


@pytest.mark.parametrize("writer", ["write", "remove_fields"])
def test_writing_to_a_hard_link_gives_that_name_a_new_file_and_keeps_the_other(
    tmp_path, inputs, writer
):
    link = make_target("hard link to an input", tmp_path, inputs)
    before = snapshot(*inputs)
    WRITERS[writer](link, inputs)
    assert snapshot(*inputs) == before
    with luanaf.open(link) as f:
        assert len(f) >= 1
    assert os.stat(link).st_ino != os.stat(inputs[0]).st_ino
    assert temporaries(tmp_path) == []


def test_remove_fields_rewrites_the_file_in_place(tmp_path, inputs):
    os.chmod(inputs[0], 0o640)
    assert luanaf.remove_fields(inputs[0], ["normals"]) is True
    assert stat.S_IMODE(os.stat(inputs[0]).st_mode) == 0o640
    with luanaf.open(inputs[0]) as f:
        assert [s.file_state for s in f] == [1 | 2 | 8, 1 | 2 | 8]
    assert temporaries(tmp_path) == []


@pytest.mark.parametrize("kind", sorted(REFUSED))
def test_the_library_create_link_refuses_special_paths(tmp_path, inputs, kind):
    target = make_target(kind, tmp_path, inputs)
    before = directory_listing(tmp_path)
    try:
        with pytest.raises(REFUSED[kind]):
            luanaf.LuAfxsCreateLink(str(target))
        assert directory_listing(tmp_path) == before
    finally:
        if kind == "read-only file":
            restore_writable(target)


def test_the_library_rewrite_refuses_a_read_only_file(tmp_path, inputs):
    set_read_only(inputs[0])
    before = directory_listing(tmp_path)
    try:
        data_set = luanaf.LuAfxsUserDataSet(luanaf.LuAfxsUserLink(str(inputs[0])))
        data_set.load(luanaf.MASK_ALL)
        with pytest.raises(luanaf.PermissionError):
            data_set.remove(luanaf.MASK_NORMALS)
        data_set.closefile()
        assert directory_listing(tmp_path) == before
    finally:
        restore_writable(inputs[0])


@pytest.mark.parametrize("reader", ["open", "remove_fields", "unify input"])
def test_a_fifo_is_never_opened_for_reading(tmp_path, inputs, reader):
    fifo = make_target("fifo", tmp_path, inputs)
    with pytest.raises(luanaf.NotARegularFileError):
        if reader == "open":
            luanaf.open(fifo)
        elif reader == "remove_fields":
            luanaf.remove_fields(fifo, "normals")
        else:
            luanaf.unify([inputs[0], fifo], tmp_path / "out.afxs")
    assert not (tmp_path / "out.afxs").exists()

"""Failures raise luanaf.Error, and a file that cannot be read is never deleted."""

import errno
import logging
import pickle

import pytest

import luanaf
from conftest import make_plane, write_file


def damage(path, how):
    data = bytearray(path.read_bytes())
    if how == "truncated":
        data = data[: len(data) - 40]
    elif how == "bad identifier":
        data[0:1] = b"X"
    elif how == "no records":
        # FIRST_RECORD 0x00000000: a header without records.
        at = data.index(b"FIRST_RECORD 0x") + len(b"FIRST_RECORD 0x")
        data[at : at + 8] = b"00000000"
    elif how == "bad end mark":
        # The last record's end mark names another kind.
        data[-4:] = b"\x07\x00\x00\x00"
    elif how == "garbage":
        data = bytearray(b"\x00\xff" * 200)
    elif how == "empty":
        data = bytearray()
    path.write_bytes(bytes(data))
    return bytes(data)


DAMAGE = ["truncated", "bad identifier", "no records", "bad end mark", "garbage", "empty"]


def test_error_is_an_os_error():
    assert issubclass(luanaf.Error, OSError)


def test_missing_file_raises_with_enoent(tmp_path):
    path = tmp_path / "missing.afxs"
    with pytest.raises(luanaf.Error) as info:
        luanaf.open(path)
    assert info.value.errno == errno.ENOENT
    assert info.value.path == str(path)
    assert not path.exists()


@pytest.mark.parametrize("how", DAMAGE)
def test_damaged_file_raises_and_still_exists(small_file, how):
    damaged = damage(small_file, how)
    with pytest.raises(luanaf.Error) as info:
        with luanaf.open(small_file) as f:
            for s in f:
                s.points, s.normals, s.res_points
    assert info.value.path == str(small_file)
    assert small_file.exists()
    assert small_file.read_bytes() == damaged


def test_bad_identifier_carries_the_header_error_code(small_file):
    damage(small_file, "bad identifier")
    with pytest.raises(luanaf.Error) as info:
        luanaf.open(small_file)
    assert info.value.code == 0xC41B0007
    assert info.value.reports[-1]["code"] == 0xC41B0007
    assert info.value.reports[-1]["source"] == "LuAfxsUserIface"
    assert "0xc41b0007" in str(info.value)


@pytest.mark.parametrize("how", DAMAGE)
def test_remove_fields_on_damaged_file_raises_and_keeps_it(small_file, how):
    damaged = damage(small_file, how)
    with pytest.raises(luanaf.Error):
        luanaf.remove_fields(small_file, "distances")
    assert small_file.read_bytes() == damaged


@pytest.mark.parametrize("how", DAMAGE)
def test_unify_with_damaged_input_raises_and_keeps_it(tmp_path, small_file, how):
    good = write_file(tmp_path / "good.afxs", [make_plane(0, 2), make_plane(1, 2)])
    damaged = damage(small_file, how)
    output = tmp_path / "out.afxs"
    with pytest.raises(luanaf.Error):
        luanaf.unify([good, small_file], output)
    assert small_file.read_bytes() == damaged
    assert good.exists()
    assert not output.exists()


def test_error_survives_pickling(tmp_path):
    with pytest.raises(luanaf.Error) as info:
        luanaf.open(tmp_path / "missing.afxs")
    copy = pickle.loads(pickle.dumps(info.value))
    assert (copy.errno, copy.path, copy.code) == (info.value.errno, info.value.path, None)


def test_failure_log_records_reach_logging(tmp_path, caplog):
    a = write_file(tmp_path / "a.afxs", [make_plane(0, 1)])
    b = write_file(tmp_path / "b.afxs", [make_plane(0, 2)])
    with caplog.at_level(logging.INFO, logger="luanaf"):
        luanaf.unify([a, b], tmp_path / "out.afxs")
    records = [r for r in caplog.records if r.name == "luanaf"]
    assert any(
        r.levelno == logging.INFO and "UnifyMultipleDataSets()- NumberOfDataSets = 2," in r.getMessage()
        for r in records
    )
    assert all(r.luanaf_source == "LuAfxsUserIface" for r in records)


def test_unknown_field_name_is_a_value_error(small_file):
    with pytest.raises(ValueError, match="unknown field group"):
        luanaf.open(small_file, fields=["pointz"])

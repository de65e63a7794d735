"""Outputs appear whole or not at all: a full disk or a KeyboardInterrupt during
the call leaves the file at the output's name as it was (or absent) and no
temporary file behind."""

import logging
import signal
import subprocess

import numpy as np
import pytest

import luanaf
from conftest import HEADER, make_plane, snapshot, temporaries, write_file

TMPFS_BYTES = 256 * 1024


@pytest.fixture
def small_disk(tmp_path):
    """A 256 KiB tmpfs, mounted for the test and unmounted after it."""
    mount_point = tmp_path / "disk"
    mount_point.mkdir()
    try:
        done = subprocess.run(
            ["mount", "-t", "tmpfs", "-o", "size=%d" % TMPFS_BYTES, "tmpfs", str(mount_point)],
            capture_output=True,
            text=True,
        )
    except OSError as e:
        pytest.skip("cannot run mount: %s" % e)
    if done.returncode != 0:
        pytest.skip("mounting a tmpfs is not permitted here: %s" % done.stderr.strip())
    try:
        yield mount_point
    finally:
        subprocess.run(["umount", str(mount_point)], check=True)


def big_planes(count, n, subset_id=1):
    return [make_plane(i, subset_id, n=n) for i in range(count)]


def test_write_on_a_full_disk_keeps_the_old_file(small_disk):
    out = write_file(small_disk / "out.afxs", [make_plane(0, 1)])
    before = snapshot(out)
    with pytest.raises(luanaf.Error):
        luanaf.write(out, HEADER, big_planes(4, 1000))  # about 350 KiB
    assert snapshot(out) == before
    assert temporaries(small_disk) == []
    assert sorted(p.name for p in small_disk.iterdir()) == ["out.afxs"]


def test_write_of_a_new_file_on_a_full_disk_leaves_nothing(small_disk):
    with pytest.raises(luanaf.Error):
        luanaf.write(small_disk / "new.afxs", HEADER, big_planes(4, 1000))
    assert list(small_disk.iterdir()) == []


def test_unify_on_a_full_disk_keeps_the_old_output(tmp_path, small_disk):
    a = write_file(tmp_path / "a.afxs", big_planes(2, 1000, 1))
    b = write_file(tmp_path / "b.afxs", big_planes(2, 1000, 2))
    out = write_file(small_disk / "out.afxs", [make_plane(0, 1)])
    before = snapshot(a, b, out)
    with pytest.raises(luanaf.Error):
        luanaf.unify([a, b], out)
    assert snapshot(a, b, out) == before
    assert sorted(p.name for p in small_disk.iterdir()) == ["out.afxs"]


def test_remove_fields_on_a_full_disk_keeps_the_file(small_disk):
    # About 210 KiB; the rewrite without normals needs about 100 KiB more.
    path = write_file(small_disk / "big.afxs", big_planes(1, 2400))
    before = snapshot(path)
    with pytest.raises(luanaf.Error):
        luanaf.remove_fields(path, "normals")
    assert snapshot(path) == before
    assert sorted(p.name for p in small_disk.iterdir()) == ["big.afxs"]


class Interrupt:
    """Raises KeyboardInterrupt from SIGALRM, every millisecond until the first
    one was raised, as a Ctrl-C in the middle of a call would."""

    def __enter__(self):
        self.raised = False

        def handler(signum, frame):
            if not self.raised:
                self.raised = True
                raise KeyboardInterrupt

        self.previous = signal.signal(signal.SIGALRM, handler)
        signal.setitimer(signal.ITIMER_REAL, 0.001, 0.001)
        return self

    def __exit__(self, *exc):
        signal.setitimer(signal.ITIMER_REAL, 0, 0)
        signal.signal(signal.SIGALRM, self.previous)
        return False


def test_interrupted_write_keeps_the_old_file(tmp_path):
    out = write_file(tmp_path / "out.afxs", [make_plane(0, 1)])
    planes = big_planes(400, 2000)
    before = snapshot(out)
    with pytest.raises(KeyboardInterrupt):
        with Interrupt():
            luanaf.write(out, HEADER, planes)
    assert snapshot(out) == before
    assert temporaries(tmp_path) == []


def test_interrupt_while_the_planes_are_written_keeps_the_old_file(tmp_path):
    # The checked planes go straight to the compiled writer, so that the
    # interrupt arrives while it writes (about 35 MB), not while Python
    # prepares the arguments.
    out = write_file(tmp_path / "out.afxs", [make_plane(0, 1)])
    planes = [luanaf._plane_dict(p, i) for i, p in enumerate(big_planes(400, 1000))]
    before = snapshot(out)
    with pytest.raises(KeyboardInterrupt):
        with Interrupt():
            luanaf._luanaf.write(str(out), dict(HEADER), planes, None)
    assert snapshot(out) == before
    assert temporaries(tmp_path) == []


def test_interrupted_remove_fields_keeps_the_file(tmp_path):
    path = write_file(tmp_path / "big.afxs", big_planes(400, 2000))
    before = snapshot(path)
    with pytest.raises(KeyboardInterrupt):
        with Interrupt():
            luanaf.remove_fields(path, "normals")
    assert snapshot(path) == before
    assert temporaries(tmp_path) == []


class InterruptOnLog(logging.Handler):
    """A logging handler that raises KeyboardInterrupt on the n-th record of
    the library, as a Ctrl-C handled while the library logs would."""

    def __init__(self, n):
        super().__init__(logging.INFO)
        self.n = n

    def emit(self, record):
        self.n -= 1
        if self.n == 0:
            raise KeyboardInterrupt


@pytest.mark.parametrize("blend, at_record", [(False, 1), (True, 3)], ids=["start", "middle"])
def test_interrupted_unify_keeps_the_old_output(tmp_path, blend, at_record):
    a = write_file(tmp_path / "a.afxs", big_planes(3, 50, 1))
    b = write_file(tmp_path / "b.afxs", big_planes(3, 50, 2))
    out = write_file(tmp_path / "out.afxs", [make_plane(0, 7)])
    before = snapshot(a, b, out)
    logger = logging.getLogger("luanaf")
    handler = InterruptOnLog(at_record)
    logger.addHandler(handler)
    level = logger.level
    logger.setLevel(logging.INFO)
    try:
        with pytest.raises(KeyboardInterrupt):
            luanaf.unify([a, b], out, blend=blend)
    finally:
        logger.removeHandler(handler)
        logger.setLevel(level)
    assert snapshot(a, b, out) == before
    assert temporaries(tmp_path) == []
    # The registry was cleared: the same unification runs afterwards.
    assert luanaf.unify([a, b], out, blend=blend).planes_written == (3 if blend else 6)

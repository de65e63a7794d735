"""Shared helpers of the tests with real processes on real file systems.

The tests start `real_worker` (a small client of the public API, real_worker.cpp),
the tool `luafxs` and Python with the `luanaf` package, and judge a file by what
the library reads back: `real_worker digest` prints the header, the cameras and a
hash of every record's field groups; `luafxs validate` gives the deep check.
"""

import json
import os
import pathlib
import shutil
import subprocess
import sys

import pytest

WORKER = os.environ.get("LUANAF_REAL_WORKER", "")
LUAFXS = os.environ.get("LUANAF_LUAFXS", "")
# A hung process is a failure; this bound only keeps a hang from stopping the run.
HANG_SECONDS = 60

GROUP_BITS = {"points": 1, "segments": 2, "normals": 4, "aux": 8, "results": 16 | 32}


def run(args, timeout=HANG_SECONDS, **kwargs):
    return subprocess.run(
        [str(a) for a in args],
        capture_output=True,
        text=True,
        timeout=timeout,
        **kwargs,
    )


def worker(*args, **kwargs):
    return run([WORKER] + list(args), **kwargs)


def luafxs(*args, **kwargs):
    return run([LUAFXS] + list(args), **kwargs)


def digest(path):
    """What the library reads from the file (None when it is missing or unloadable)."""
    if not os.path.lexists(path):
        return None
    done = worker("digest", path)
    if done.returncode != 0:
        return None
    return json.loads(done.stdout)


def validates(path):
    return luafxs("validate", path).returncode == 0


def same_content(a, b):
    """Header, cameras and every record's field groups are equal."""
    if a is None or b is None:
        return False
    keys = ("header", "cameras", "cameraCount", "records")
    return all(a[k] == b[k] for k in keys)


def loads_as(path, expected):
    """The file loads with exactly `expected`'s content and validates clean."""
    return same_content(digest(path), expected) and validates(path)


def write_sample(path, planes, points):
    done = worker("write", path, planes, points)
    assert done.returncode == 0, done.stdout + done.stderr
    return path


class UnifyScans:
    """Two scans (left, right) and what `luafxs unify` makes of them: an earlier
    output of the left scan alone (older, its digest before) and the two unified
    (the digest after); inputs holds the scans' bytes."""

    def __init__(self, folder, planes, points):
        self.left = write_sample(folder / "left.afxs", planes, points)
        self.right = folder / "right.afxs"
        shutil.copyfile(self.left, self.right)
        self.older = folder / "older.afxs"
        assert luafxs("unify", "-o", self.older, "%s:7" % self.left).returncode == 0
        self.before = digest(self.older)
        reference = folder / "reference.afxs"
        assert luafxs("unify", "-o", reference, "%s:1" % self.left, "%s:2" % self.right).returncode == 0
        self.after = digest(reference)
        self.inputs = {name: (folder / name).read_bytes() for name in ("left.afxs", "right.afxs")}


def flush_reports(stdout):
    """{plane: True/False} from the worker's "flush P ok|failed" lines."""
    out = {}
    for line in stdout.splitlines():
        parts = line.split()
        if len(parts) == 3 and parts[0] == "flush":
            out[int(parts[1])] = parts[2] == "ok"
    return out


def records_by_plane(d):
    return {r["plane"]: r for r in d["records"]}


PYTHON = sys.executable


@pytest.fixture(scope="session", autouse=True)
def programs_present():
    if not WORKER or not LUAFXS:
        pytest.fail("LUANAF_REAL_WORKER and LUANAF_LUAFXS must name the built programs (run through ctest)")


class Tmpfs:
    """A tmpfs of a fixed size mounted on a folder; unmounted at teardown."""

    def __init__(self, folder, size_kib):
        self.path = pathlib.Path(folder)
        self.size_kib = size_kib

    def clear(self):
        for entry in self.path.iterdir():
            if entry.is_dir() and not entry.is_symlink():
                shutil.rmtree(entry)
            else:
                entry.unlink()

    def free_bytes(self):
        st = os.statvfs(self.path)
        return st.f_bavail * st.f_frsize

    def fill(self, nbytes):
        """A filler file of up to nbytes (less when the file system is full first)."""
        chunk = b"\xa5" * 4096
        written = 0
        with open(self.path / "filler", "wb", buffering=0) as f:
            while written < nbytes:
                try:
                    written += f.write(chunk[: min(4096, nbytes - written)])
                except OSError:
                    break
        return written


@pytest.fixture
def tmpfs(tmp_path):
    """A 384 KiB tmpfs; the test skips when mounting is not permitted."""
    yield from mounted_tmpfs(tmp_path, 384)


@pytest.fixture
def large_tmpfs(tmp_path):
    """A 6 MiB tmpfs, for files that pass a mebibyte."""
    yield from mounted_tmpfs(tmp_path, 6 * 1024)


def mounted_tmpfs(tmp_path, size_kib):
    mount_point = tmp_path / "mnt"
    mount_point.mkdir()
    done = subprocess.run(
        ["mount", "-t", "tmpfs", "-o", "size=%dk" % size_kib, "tmpfs", str(mount_point)],
        capture_output=True,
        text=True,
    )
    if done.returncode != 0:
        reason = (done.stderr.strip().splitlines() or ["mount failed"])[0]
        pytest.skip("cannot mount a tmpfs here (needs root): " + reason)
    try:
        yield Tmpfs(mount_point, size_kib)
    finally:
        if subprocess.run(["umount", str(mount_point)], capture_output=True).returncode != 0:
            subprocess.run(["umount", "-l", str(mount_point)], capture_output=True)

"""A FIFO without a writer (or reader) must never make a verb block.

Opening a FIFO for reading waits for a writer, and for writing waits for a
reader: a program that opens one as if it were a file hangs forever. Every
verb of `luafxs` and `luanaf.open` must fail promptly on a FIFO instead, and
leave it (and every other file) as it was. A run still going after
BLOCKED_SECONDS counts as blocked; that bound only stops a hang, it measures
no speed.
"""

import os
import stat
import subprocess

import pytest

from conftest import LUAFXS, PYTHON, run, write_sample

BLOCKED_SECONDS = 20

OPEN_CHILD = """
import sys
import luanaf
try:
    luanaf.open(sys.argv[1])
except luanaf.Error as error:
    print("refused:", error)
    sys.exit(1)
sys.exit(0)
"""

# (name, arguments); FIFO and GOOD, GOOD2, OUT are replaced by paths.
VERBS = [
    ("info", ["info", "FIFO"]),
    ("info --json", ["info", "FIFO", "--json"]),
    ("validate", ["validate", "FIFO"]),
    ("dump", ["dump", "FIFO"]),
    ("dump json", ["dump", "FIFO", "--format", "json", "-o", "OUT"]),
    ("unify, FIFO input", ["unify", "-o", "OUT", "GOOD:1", "FIFO:2"]),
    ("unify, FIFO output", ["unify", "-o", "FIFO", "GOOD:1", "GOOD2:2"]),
    ("remove", ["remove", "FIFO", "--fields", "normals"]),
    ("plot", ["plot", "FIFO", "-o", "OUT"]),
    ("plot, FIFO output", ["plot", "GOOD", "-o", "FIFO"]),
    ("dump, FIFO output", ["dump", "GOOD", "-o", "FIFO"]),
    ("demo, FIFO folder", ["demo", "FIFO"]),
]


@pytest.fixture
def files(tmp_path):
    fifo = tmp_path / "pipe.afxs"
    os.mkfifo(fifo)
    good = write_sample(tmp_path / "good.afxs", 3, 50)
    good2 = write_sample(tmp_path / "good2.afxs", 3, 50)
    paths = {"FIFO": fifo, "GOOD": good, "GOOD2": good2, "OUT": tmp_path / "out.afxs"}
    contents = {p: p.read_bytes() for p in (good, good2)}
    yield paths
    assert stat.S_ISFIFO(os.lstat(fifo).st_mode), "the FIFO was replaced"
    for path, data in contents.items():
        assert path.read_bytes() == data, "%s changed" % path


def substitute(args, paths):
    out = []
    for arg in args:
        name, _, suffix = arg.partition(":")
        out.append(str(paths[name]) + (":" + suffix if suffix else "") if name in paths else arg)
    return out


def fails_promptly(args):
    try:
        done = run(args, timeout=BLOCKED_SECONDS)
    except subprocess.TimeoutExpired:  # the child was killed
        pytest.fail("blocked on the FIFO: %s" % " ".join(map(str, args)), pytrace=False)
    assert done.returncode != 0, "succeeded on a FIFO: %s\n%s" % (" ".join(map(str, args)), done.stdout)
    return done


@pytest.mark.parametrize("args", [a for _, a in VERBS], ids=[n for n, _ in VERBS])
def test_luafxs_verb_on_a_fifo_fails_promptly(files, args):
    done = fails_promptly([LUAFXS] + substitute(args, files))
    assert done.returncode == 1, "exit %d, not a failure report:\n%s" % (done.returncode, done.stderr)
    assert done.stderr.strip(), "no message"


def test_luanaf_open_on_a_fifo_fails_promptly(files):
    env_path = os.environ.get("PYTHONPATH", "")
    assert env_path, "PYTHONPATH must lead to the luanaf package"
    done = fails_promptly([PYTHON, "-c", OPEN_CHILD, files["FIFO"]])
    assert "refused:" in done.stdout, done.stdout + done.stderr

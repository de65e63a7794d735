"""kill -9 at random moments of a write, a results flush, a removal and a unification.

Each trial starts the operation on fresh files of a few MB, kills it with
SIGKILL after a random delay (a fixed seed; uniform over a little more than a
clean run's duration), and classifies what is on disk:

  before      the file loads exactly as before (a leftover temporary aside)
  partly      results flush: every record either as before or with its complete results
  complete    the new file is complete
  absent      write: no file at the path (the write had not got far enough)
  window      remove: the original deleted, its complete rewrite in "<file>.tmp"
              (the documented step between the delete and the move)
  corrupt     a file at the path that does not load as one of the above
  lost        the file is gone and no complete rewrite is left

No trial may end corrupt or lost. LUANAF_KILL_TRIALS (default 150) sets the
trials per operation; scripts/kill_sweep.sh runs more by hand.
"""

import collections
import os
import random
import shutil
import signal
import subprocess
import sys
import time

import pytest

from conftest import (
    UnifyScans,
    LUAFXS,
    PYTHON,
    WORKER,
    digest,
    loads_as,
    records_by_plane,
    validates,
    worker,
    write_sample,
)

TRIALS = int(os.environ.get("LUANAF_KILL_TRIALS", "150"))
SEED = int(os.environ.get("LUANAF_KILL_SEED", "20261124"))
HERE = os.path.dirname(os.path.abspath(__file__))


def start(args):
    env = dict(os.environ)
    env["PYTHONPATH"] = os.pathsep.join(filter(None, [env.get("PYTHONPATH"), HERE]))
    return subprocess.Popen(
        [str(a) for a in args], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, env=env
    )


def wait_for(process, line):
    """Reads the child's lines until `line` (True) or its end (False)."""
    if line is None:
        return True
    for text in process.stdout:
        if text.strip() == line:
            return True
    return False


def clean_duration(args, ready):
    """Seconds from the ready line to the last line of one undisturbed run
    (printed when the operation returned; the process's exit is left out)."""
    process = start(args)
    assert wait_for(process, ready)
    began = last = time.monotonic()
    for _ in process.stdout:
        last = time.monotonic()
    assert process.wait() == 0
    return last - began


def killed_run(args, ready, delay):
    """Starts, waits for the ready line, sleeps `delay`, then SIGKILL. True if it ended first."""
    process = start(args)
    wait_for(process, ready)
    time.sleep(delay)
    finished = process.poll() is not None
    if not finished:
        process.send_signal(signal.SIGKILL)
    process.wait()
    process.stdout.close()
    return finished


def sweep(name, prepare, args, ready, classify, allowed, folder, names):
    """TRIALS killed runs; returns the counts of the classes. Asserts only allowed classes.
    Files in `folder` beyond `names` (temporaries a kill left) are counted, not judged."""
    prepare()
    duration = clean_duration(args, ready)
    rng = random.Random(SEED)
    counts = collections.Counter()
    bad = []
    for trial in range(TRIALS):
        prepare()
        finished = killed_run(args, ready, rng.uniform(0, 1.2 * duration))
        verdict = classify()
        counts[verdict] += 1
        counts["ended before the kill"] += finished
        counts["temporary left"] += bool(set(os.listdir(folder)) - set(names))
        if verdict not in allowed:
            bad.append("trial %d: %s" % (trial, verdict))
    print("\n%s: %d trials, clean run %.3f s: %s" % (name, TRIALS, duration, dict(counts)))
    assert not bad, "%d of %d trials: %s\n%s" % (len(bad), TRIALS, dict(counts), "\n".join(bad[:10]))
    return counts


def clear(folder):
    for name in os.listdir(folder):
        os.unlink(os.path.join(folder, name))


@pytest.fixture
def trial_dir(tmp_path):
    folder = tmp_path / "trial"
    folder.mkdir()
    return folder


def test_kill_during_results_flush(tmp_path, trial_dir):
    source = write_sample(tmp_path / "source.afxs", 40, 3000)
    before = records_by_plane(digest(source))
    reference = tmp_path / "reference.afxs"
    shutil.copyfile(source, reference)
    assert worker("flush", reference).returncode == 0
    after = records_by_plane(digest(reference))
    target = trial_dir / "scan.afxs"

    def prepare():
        clear(trial_dir)
        shutil.copyfile(source, target)

    def classify():
        if not target.exists():
            return "lost"
        found = digest(target)
        if found is None or not validates(target):
            return "corrupt"
        records = records_by_plane(found)
        if records == before:
            return "before"
        if records == after:
            return "complete"
        if all(records[p] in (before[p], after[p]) for p in before) and records.keys() == before.keys():
            return "partly"
        return "corrupt"

    sweep("flush", prepare, [WORKER, "flush", target], "loaded", classify, {"before", "partly", "complete"},
          trial_dir, ["scan.afxs"])


def test_kill_during_remove(tmp_path, trial_dir):
    source = write_sample(tmp_path / "source.afxs", 40, 3000)
    original = source.read_bytes()
    reference = tmp_path / "reference.afxs"
    shutil.copyfile(source, reference)
    assert worker("remove", reference, 4).returncode == 0
    after = digest(reference)
    target = trial_dir / "scan.afxs"
    temporary = trial_dir / "scan.afxs.tmp"

    def prepare():
        clear(trial_dir)
        shutil.copyfile(source, target)

    def classify():
        if target.exists():
            if target.read_bytes() == original:
                return "before"
            return "complete" if loads_as(target, after) else "corrupt"
        if temporary.exists() and loads_as(temporary, after):
            return "window"
        return "lost"

    sweep("remove", prepare, [WORKER, "remove", target, 4], None, classify, {"before", "complete", "window"},
          trial_dir, ["scan.afxs"])


def test_kill_during_tool_unify(tmp_path, trial_dir):
    scans = UnifyScans(tmp_path, 20, 3000)
    older, before, after, inputs = scans.older, scans.before, scans.after, scans.inputs
    out = trial_dir / "unified.afxs"

    def prepare():
        clear(trial_dir)
        for name in inputs:
            shutil.copyfile(tmp_path / name, trial_dir / name)
        shutil.copyfile(older, out)

    def classify():
        for name, data in inputs.items():
            if (trial_dir / name).read_bytes() != data:
                return "corrupt input"
        if not out.exists():
            return "lost"
        if loads_as(out, before):
            return "before"
        return "complete" if loads_as(out, after) else "corrupt"

    args = [LUAFXS, "unify", "-o", out, "%s:1" % (trial_dir / "left.afxs"), "%s:2" % (trial_dir / "right.afxs")]
    sweep("unify", prepare, args, None, classify, {"before", "complete"}, trial_dir, list(inputs) + ["unified.afxs"])


WRITE_CHILD = """
import sys
import luanaf
from real_data import CAMERAS, HEADER, python_planes
planes = python_planes(40, 3000)
print("go", flush=True)
luanaf.write(sys.argv[1], HEADER, planes, CAMERAS)
print("done", flush=True)
"""


def test_kill_during_python_write(tmp_path, trial_dir):
    sys.path.insert(0, HERE)
    import luanaf
    from real_data import CAMERAS, HEADER, python_planes

    reference = tmp_path / "reference.afxs"
    luanaf.write(str(reference), HEADER, python_planes(40, 3000), CAMERAS)
    after = digest(reference)
    target = trial_dir / "new.afxs"

    def prepare():
        clear(trial_dir)

    def classify():
        if not os.path.lexists(target):
            return "absent"
        return "complete" if loads_as(target, after) else "corrupt"

    sweep("python write", prepare, [PYTHON, "-c", WRITE_CHILD, target], "go", classify, {"absent", "complete"},
          trial_dir, ["new.afxs"])

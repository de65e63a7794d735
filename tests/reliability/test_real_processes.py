"""Two processes on one file: flushing, removing, and flushing while removing.

Each round starts both at once on a fresh copy of a file of a few MB. Whatever
the interleaving, the file must load and validate afterwards, nothing of its
point data may be lost, and every success one of the processes reported must
be in the file (a failure report is an allowed outcome; a silently lost update
is not). The stale-handle case: a file loaded in one process and rewritten by
`remove` in another; the first process's flush must then fail and change
nothing.
"""

import json
import shutil
import subprocess

import pytest

from conftest import (
    GROUP_BITS,
    LUAFXS,
    WORKER,
    digest,
    flush_reports,
    luafxs,
    records_by_plane,
    validates,
    worker,
    write_sample,
)

ROUNDS = 15
PLANES = 12


@pytest.fixture
def sample(tmp_path):
    """(source path, its digest by plane, the digest after a clean flush of every record)."""
    source = write_sample(tmp_path / "source.afxs", PLANES, 2000)
    reference = tmp_path / "flushed.afxs"
    shutil.copyfile(source, reference)
    assert worker("flush", reference).returncode == 0
    return source, records_by_plane(digest(source)), records_by_plane(digest(reference))


def start(*args, stdin=None):
    return subprocess.Popen(
        [str(a) for a in (WORKER,) + args], stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
    )


def loaded(process):
    line = process.stdout.readline().strip()
    assert line == "loaded", line + process.stderr.read()


def finish(process):
    out, err = process.communicate(timeout=120)
    return process.returncode, out, err


def planes_of(parity):
    return ",".join(str(p) for p in range(parity, PLANES, 2))


def test_two_results_flushes_on_one_file(tmp_path, sample):
    source, before, flushed = sample
    target = tmp_path / "scan.afxs"
    outcomes = {"both flushed": 0, "one or both reported failure": 0}
    for round_ in range(ROUNDS):
        shutil.copyfile(source, target)
        first = start("flush", target, "--planes", planes_of(0), "--wait", stdin=subprocess.PIPE)
        second = start("flush", target, "--planes", planes_of(1), "--wait", stdin=subprocess.PIPE)
        loaded(first)
        loaded(second)
        for process in (first, second):  # both go at once
            process.stdin.write("\n")
            process.stdin.flush()
        (rc1, out1, _), (rc2, out2, _) = finish(first), finish(second)
        reports = {**flush_reports(out1), **flush_reports(out2)}
        found = digest(target)
        assert found is not None and validates(target), "round %d: the file no longer loads or validates" % round_
        for plane, record in records_by_plane(found).items():
            expected = flushed[plane] if reports.get(plane) else before[plane]
            assert record == expected, "round %d: plane %d differs from its report (%s)" % (
                round_,
                plane,
                reports.get(plane),
            )
        outcomes["both flushed" if rc1 == rc2 == 0 else "one or both reported failure"] += 1
    print("\ntwo flushes, %d rounds: %s" % (ROUNDS, outcomes))


def check_groups(round_, found, before, removed):
    """Groups not removed are as before; removed groups are absent from every record."""
    assert found is not None, "round %d: the file no longer loads" % round_
    records = records_by_plane(found)
    assert records.keys() == before.keys(), "round %d: planes lost" % round_
    for plane, record in records.items():
        for group in ("points", "segments", "normals", "aux"):
            if group in removed:
                assert record["state"] & GROUP_BITS[group] == 0, "round %d: %s still in plane %d" % (
                    round_,
                    group,
                    plane,
                )
            else:
                assert record[group] == before[plane][group], "round %d: %s of plane %d lost or changed" % (
                    round_,
                    group,
                    plane,
                )


def fresh_copy(source, target):
    """The sample at target, with no rewrite of an earlier round beside it."""
    shutil.copyfile(source, target)
    leftover = target.with_name(target.name + ".tmp")
    if leftover.exists():
        leftover.unlink()


def assert_kept(round_, target):
    assert target.exists(), "round %d: the file is gone" % round_
    assert validates(target), "round %d: the file no longer validates" % round_


def test_two_removes_on_one_file(tmp_path, sample):
    source, before, _ = sample
    original = source.read_bytes()
    target = tmp_path / "scan.afxs"
    outcomes = {}
    for round_ in range(ROUNDS):
        fresh_copy(source, target)
        normals = start("remove", target, GROUP_BITS["normals"])
        aux = start("remove", target, GROUP_BITS["aux"])
        (rc_normals, _, _), (rc_aux, _, _) = finish(normals), finish(aux)
        assert_kept(round_, target)
        removed = {g for g, rc in (("normals", rc_normals), ("aux", rc_aux)) if rc == 0}
        if not removed:
            assert target.read_bytes() == original, "round %d: both failed and the file changed" % round_
        check_groups(round_, digest(target), before, removed)
        key = "removed: %s" % (" and ".join(sorted(removed)) or "nothing")
        outcomes[key] = outcomes.get(key, 0) + 1
    print("\ntwo removes, %d rounds: %s" % (ROUNDS, outcomes))


def test_flush_while_remove_on_one_file(tmp_path, sample):
    source, before, flushed = sample
    target = tmp_path / "scan.afxs"
    outcomes = {}
    for round_ in range(ROUNDS):
        fresh_copy(source, target)
        flusher = start("flush", target, "--wait", stdin=subprocess.PIPE)
        loaded(flusher)
        remover = start("remove", target, GROUP_BITS["normals"])
        flusher.stdin.write("\n")
        flusher.stdin.flush()
        (rc_flush, out, _), (rc_remove, _, _) = finish(flusher), finish(remover)
        assert_kept(round_, target)
        found = digest(target)
        check_groups(round_, found, before, {"normals"} if rc_remove == 0 else set())
        reports = flush_reports(out)
        for plane, record in records_by_plane(found).items():
            if record["state"] & GROUP_BITS["results"]:
                # Results in the file are those the flush wrote, and it said so.
                assert record["results"] == flushed[plane]["results"], "round %d: plane %d" % (round_, plane)
                assert reports.get(plane), "round %d: results in plane %d without a success" % (round_, plane)
            elif reports.get(plane):
                # A flush that succeeded can only have been undone by a rewrite
                # after it (a rewrite drops results, as documented).
                assert rc_remove == 0, "round %d: plane %d's reported results are gone" % (round_, plane)
        key = "flush %s, remove %s" % ("ok" if rc_flush == 0 else "failed", "ok" if rc_remove == 0 else "failed")
        outcomes[key] = outcomes.get(key, 0) + 1
    print("\nflush while remove, %d rounds: %s" % (ROUNDS, outcomes))


@pytest.mark.parametrize("remover", ["tool", "library"])
def test_flush_after_the_file_was_rewritten_underneath_fails(tmp_path, sample, remover):
    source, _, _ = sample
    target = tmp_path / "scan.afxs"
    shutil.copyfile(source, target)
    flusher = start("flush", target, "--wait", stdin=subprocess.PIPE)
    loaded(flusher)
    if remover == "tool":
        done = luafxs("remove", target, "--fields", "normals")
    else:
        done = worker("remove", target, GROUP_BITS["normals"])
    assert done.returncode == 0, done.stdout + done.stderr
    rewritten = target.read_bytes()
    flusher.stdin.write("\n")
    flusher.stdin.flush()
    rc, out, err = finish(flusher)
    reports = flush_reports(out)
    assert rc == 1 and reports and not any(reports.values()), out + err
    assert target.read_bytes() == rewritten, "the stale flush changed the rewritten file"


def test_two_compares_in_place_on_one_file(tmp_path):
    source = write_sample(tmp_path / "source.afxs", 200, 3000)
    nominal = write_sample(tmp_path / "nominal.afxs", 200, 1500)
    target = tmp_path / "scan.afxs"
    for round_ in range(10):
        shutil.copyfile(source, target)
        runs = [
            subprocess.Popen([LUAFXS, "compare", str(target), str(nominal)], stdout=subprocess.DEVNULL,
                             stderr=subprocess.PIPE, text=True)
            for _ in range(2)
        ]
        done = [(run.wait(timeout=120), run.stderr.read()) for run in runs]
        codes = sorted(code for code, _ in done)
        assert codes[0] == 0, "round %d: neither comparison succeeded: %s" % (round_, done)
        for code, err in done:
            assert code == 0 or "none of them was written" in err or "already holds results" in err, (
                "round %d: %s" % (round_, err)
            )
        assert validates(target), "round %d" % round_
        info = json.loads(luafxs("info", "--json", target).stdout)
        # One comparison's results, once per record: none appended twice.
        assert info["resultsRecords"] == 200, "round %d: %s results records" % (round_, info["resultsRecords"])

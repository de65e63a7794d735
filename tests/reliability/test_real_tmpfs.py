"""A full disk for real: a small tmpfs swept through every fill level.

For each operation (a results flush, a field removal and a large write through
the library, a unification through the tool, a write through the Python
package) the tmpfs is filled, page by page (by 16 pages for the large write),
from empty to full, and at every level the operation runs once on fresh files. Each run must end in one of two ways: a reported
failure with the files loading exactly as before, or a success with the new
file complete (equal to what the same operation writes on a roomy disk).
"""

import os
import shutil

import luanaf

from conftest import (
    UnifyScans,
    digest,
    flush_reports,
    loads_as,
    luafxs,
    records_by_plane,
    validates,
    worker,
    write_sample,
)
from real_data import CAMERAS, HEADER, python_planes

PAGE = 4096


def fill_levels(tmpfs, step=PAGE):
    return range(0, tmpfs.size_kib * 1024 + step, step)


def sweep(tmpfs, prepare, operate, judge, step=PAGE):
    """Runs operate at every fill level; returns (counts, violations)."""
    counts = {"failed as before": 0, "succeeded complete": 0}
    violations = []
    for level in fill_levels(tmpfs, step):
        tmpfs.clear()
        prepare()
        tmpfs.fill(level)
        free = tmpfs.free_bytes()
        outcome = operate()
        verdict = judge(outcome)
        if verdict in counts:
            counts[verdict] += 1
        else:
            violations.append("filler %d bytes (%d bytes free): %s" % (level, free, verdict))
    print("\n%s: %s" % (operate.__name__, counts))
    return counts, violations


def assert_sweep(counts, violations):
    assert not violations, "%d of the fill levels broke the rule:\n%s" % (
        len(violations),
        "\n".join(violations[:15]),
    )
    # Both ends of the sweep were reached: some levels too full, some roomy enough.
    assert counts["failed as before"] > 0 and counts["succeeded complete"] > 0, counts


def only_files(folder, names):
    extra = sorted(set(os.listdir(folder)) - set(names) - {"filler"})
    return "left behind: %s" % extra if extra else None


def test_results_flush_at_every_fill_level(tmpfs, tmp_path):
    source = write_sample(tmp_path / "source.afxs", 8, 120)
    before = digest(source)
    reference = tmp_path / "reference.afxs"
    shutil.copyfile(source, reference)
    assert worker("flush", reference).returncode == 0
    after = records_by_plane(digest(reference))
    target = tmpfs.path / "scan.afxs"

    def prepare():
        shutil.copyfile(source, target)

    def flush_results():
        return worker("flush", target)

    def judge(done):
        found = digest(target)
        if found is None or not validates(target):
            return "the file no longer loads or validates (worker exit %d, %s)" % (
                done.returncode,
                done.stdout.strip().splitlines()[-1:],
            )
        reports = flush_reports(done.stdout)
        old = records_by_plane(before)
        for plane, record in records_by_plane(found).items():
            expected = after[plane] if reports.get(plane) else old[plane]
            if record != expected:
                return "plane %d differs (flush reported %s)" % (plane, reports.get(plane))
        if found["header"] != before["header"] or found["cameras"] != before["cameras"]:
            return "header or cameras changed"
        if only_files(tmpfs.path, ["scan.afxs"]):
            return only_files(tmpfs.path, ["scan.afxs"])
        # A failed run may follow flushes of earlier records that succeeded:
        # each record was judged against its own report above.
        return "succeeded complete" if done.returncode == 0 else "failed as before"

    assert_sweep(*sweep(tmpfs, prepare, flush_results, judge))


def test_remove_at_every_fill_level(tmpfs, tmp_path):
    source = write_sample(tmp_path / "source.afxs", 8, 120)
    original = source.read_bytes()
    before = digest(source)
    reference = tmp_path / "reference.afxs"
    shutil.copyfile(source, reference)
    assert worker("remove", reference, 4).returncode == 0
    after = digest(reference)
    target = tmpfs.path / "scan.afxs"

    def prepare():
        shutil.copyfile(source, target)

    def remove_normals():
        return worker("remove", target, 4)

    def judge(done):
        if done.returncode == 0:
            if not loads_as(target, after):
                return "remove reported success, the file is not the complete rewrite"
            return only_files(tmpfs.path, ["scan.afxs"]) or "succeeded complete"
        if not target.exists():
            return "remove failed (exit %d) and the file is gone" % done.returncode
        if target.read_bytes() != original or not loads_as(target, before):
            return "remove failed (exit %d) and the file changed" % done.returncode
        # A failed rewrite may leave "<file>.tmp" behind (documented).
        return only_files(tmpfs.path, ["scan.afxs", "scan.afxs.tmp"]) or "failed as before"

    assert_sweep(*sweep(tmpfs, prepare, remove_normals, judge))


def test_large_write_at_every_fill_level(large_tmpfs, tmp_path):
    """A writer kept open reserves room ahead once its file passes a
    mebibyte: a success leaves the file complete with no room held behind
    it, and a failure leaves no file and takes no room."""
    tmpfs = large_tmpfs
    planes, points = 12, 4400
    reference = write_sample(tmp_path / "reference.afxs", planes, points)
    after = digest(reference)
    size = reference.stat().st_size
    assert size > 3 * 1024 * 1024
    target = tmpfs.path / "large.afxs"
    free_before = []

    def prepare():
        pass

    def write_large():
        free_before.append(tmpfs.free_bytes())
        return worker("write", target, planes, points)

    def judge(done):
        if done.returncode == 0:
            if not loads_as(target, after):
                return "the write reported success, the file is not complete"
            held = target.stat().st_blocks * 512
            if held > size + PAGE:
                return "the file holds %d bytes of room for %d bytes" % (held, size)
            return only_files(tmpfs.path, ["large.afxs"]) or "succeeded complete"
        if os.path.lexists(target):
            return "the write failed and left a file behind (%d bytes)" % target.stat().st_size
        if tmpfs.free_bytes() != free_before[-1]:
            return "the failed write holds room: %d bytes free, %d before" % (
                tmpfs.free_bytes(),
                free_before[-1],
            )
        return only_files(tmpfs.path, []) or "failed as before"

    # Every 16 pages: the sweep passes every share of free room the
    # reservation ahead meets (twice what it asks, less, none).
    assert_sweep(*sweep(tmpfs, prepare, write_large, judge, step=16 * PAGE))


def test_tool_unify_at_every_fill_level(tmpfs, tmp_path):
    scans = UnifyScans(tmp_path, 4, 100)
    older, before, after, inputs = scans.older, scans.before, scans.after, scans.inputs
    out = tmpfs.path / "unified.afxs"

    def prepare():
        for name in inputs:
            shutil.copyfile(tmp_path / name, tmpfs.path / name)
        shutil.copyfile(older, out)

    def unify_two():
        return luafxs(
            "unify", "-o", out, "%s:1" % (tmpfs.path / "left.afxs"), "%s:2" % (tmpfs.path / "right.afxs")
        )

    def judge(done):
        for name, data in inputs.items():
            if (tmpfs.path / name).read_bytes() != data:
                return "input %s changed" % name
        stray = only_files(tmpfs.path, list(inputs) + ["unified.afxs"])
        if done.returncode == 0:
            if not loads_as(out, after):
                return "unify reported success, the output is not complete"
            return stray or "succeeded complete"
        if not loads_as(out, before):
            return "unify failed (exit %d) and the earlier output no longer loads as before: %s" % (
                done.returncode,
                done.stderr.strip().splitlines()[-1:] if done.stderr else "",
            )
        return stray or "failed as before"

    assert_sweep(*sweep(tmpfs, prepare, unify_two, judge))


def test_python_write_at_every_fill_level(tmpfs, tmp_path):
    planes = python_planes(8, 120)
    reference = tmp_path / "reference.afxs"
    luanaf.write(str(reference), HEADER, planes, CAMERAS)
    after = digest(reference)
    target = tmpfs.path / "new.afxs"

    def prepare():
        pass

    def python_write():
        try:
            luanaf.write(str(target), HEADER, planes, CAMERAS)
            return None
        except luanaf.Error as error:
            return error

    def judge(error):
        if error is None:
            if not loads_as(target, after):
                return "write reported success, the file is not complete"
            return only_files(tmpfs.path, ["new.afxs"]) or "succeeded complete"
        if os.path.lexists(target):
            return "write failed (%s) and left a file behind (%d bytes)" % (error, target.stat().st_size)
        return only_files(tmpfs.path, []) or "failed as before"

    assert_sweep(*sweep(tmpfs, prepare, python_write, judge))


def test_tool_compare_in_place_at_every_fill_level(tmpfs, tmp_path):
    source = write_sample(tmp_path / "source.afxs", 8, 120)
    nominal = write_sample(tmp_path / "nominal.afxs", 8, 90)
    original = source.read_bytes()
    reference = tmp_path / "reference.afxs"
    shutil.copyfile(source, reference)
    assert luafxs("compare", reference, nominal).returncode == 0
    after = digest(reference)
    target = tmpfs.path / "scan.afxs"

    def prepare():
        shutil.copyfile(source, target)

    def compare_in_place():
        return luafxs("compare", target, nominal)

    def judge(done):
        stray = only_files(tmpfs.path, ["scan.afxs"])
        if done.returncode == 0:
            if digest(target) != after or not validates(target):
                return "compare reported success, the results are not all in the file"
            return stray or "succeeded complete"
        # All or nothing: a failed comparison leaves the very bytes it found.
        if target.read_bytes() != original:
            return "compare failed (exit %d) and the file changed: %s" % (
                done.returncode,
                done.stderr.strip().splitlines()[-1:],
            )
        if "none of them was written" not in done.stderr:
            return "compare failed without saying that none was written: %s" % done.stderr.strip()
        return stray or "failed as before"

    assert_sweep(*sweep(tmpfs, prepare, compare_in_place, judge))

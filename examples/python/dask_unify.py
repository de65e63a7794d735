#!/usr/bin/env python3
"""Unify every cross-section of a folder on a Dask cluster of processes.

    PYTHONPATH=<build>/python /usr/bin/python3 examples/python/dask_unify.py SCANS OUT -j 2

SCANS holds one subfolder per cross-section, each with the .afxs files of its
scans; every subfolder is unified through luanaf.unify into OUT/NAME.afxs,
as `luafxs batch SCANS -o OUT` does. The library serves one thread at a time,
so each Dask worker is a process with one thread: the LocalCluster below runs
`-j` of them on this machine. On many machines, start `dask scheduler` on one
and `dask worker SCHEDULER:8786 --nthreads 1 --nworkers K` on each of the
others (the scans and OUT on a shared file system), and pass
`--scheduler SCHEDULER:8786` instead of `-j`.

Prints one line per cross-section and a summary; exits 1 when any failed.
Needs Debian's python3-distributed (apt-get install python3-distributed).
"""

import argparse
import pathlib
import sys
import time


def cross_sections(folder):
    """(name, [inputs]) of every subfolder that holds .afxs files, by name."""
    for sub in sorted(p for p in pathlib.Path(folder).iterdir() if p.is_dir()):
        inputs = sorted(str(p) for p in sub.glob("*.afxs") if p.is_file())
        if inputs:
            yield sub.name, inputs


def warm_up():
    """Runs once in every worker process: the import of numpy and the module."""
    import luanaf  # noqa: F401


def unify_one(inputs, output, blend):
    """Runs in a worker process: one unification, its summary as a dict with
    the seconds it took."""
    import luanaf

    ids = list(range(1, len(inputs) + 1)) if blend else None
    started = time.perf_counter()
    try:
        summary = luanaf.unify(inputs, output, output_ids=ids, blend=blend)
        return {"output": output, "ok": True, "seconds": time.perf_counter() - started, **summary}
    except (luanaf.Error, ValueError) as e:
        return {"output": output, "ok": False, "seconds": time.perf_counter() - started,
                "error": str(e)}


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("scans", help="folder with one subfolder of .afxs files per cross-section")
    parser.add_argument("out", help="folder the unified files go to")
    parser.add_argument("-j", "--workers", type=int, default=2, help="worker processes")
    parser.add_argument("--blend", action="store_true", help="blend, inputs numbered 1, 2, ...")
    parser.add_argument("--scheduler", help="address of a running scheduler instead of a local one")
    args = parser.parse_args(argv)

    from dask.distributed import Client, LocalCluster

    jobs = [(name, inputs, str(pathlib.Path(args.out) / (name + ".afxs")))
            for name, inputs in cross_sections(args.scans)]
    started = time.perf_counter()
    if args.scheduler:
        client, cluster = Client(args.scheduler), None
    else:
        cluster = LocalCluster(n_workers=args.workers, threads_per_worker=1, processes=True,
                               dashboard_address=None)
        client = Client(cluster)
    try:
        # Each worker imports the module once, before the work is timed: a
        # cluster's workers live on from one batch of work to the next.
        client.run(warm_up)
        ready = time.perf_counter()
        futures = [client.submit(unify_one, inputs, output, args.blend, key=f"unify-{name}",
                                 pure=False)
                   for name, inputs, output in jobs]
        results = client.gather(futures)
        working = time.perf_counter() - ready
    finally:
        client.close()
        if cluster is not None:
            cluster.close()
    seconds = time.perf_counter() - started

    failed = 0
    unifying = sum(r["seconds"] for r in results)
    for (name, _, _), r in zip(jobs, results):
        if r["ok"]:
            print(f"{name}: {r['planes_written']} planes written, {r['planes_blended']} blended, "
                  f"{r['positions_skipped']} positions skipped")
        else:
            failed += 1
            print(f"{name}: {r['error']}", file=sys.stderr)
    # Seconds in luanaf.unify, summed over the workers, against the work's
    # time: what the workers' processes spent on Dask and on waiting.
    print(f"dask: {len(jobs)} cross-sections, {args.workers} workers, {failed} failed, "
          f"{seconds:.2f} s ({working:.2f} s of work once the cluster was up and warm; "
          f"{unifying:.2f} s in luanaf.unify, summed over the workers)")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())

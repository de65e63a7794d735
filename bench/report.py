#!/usr/bin/python3
"""Turns the JSON output of the benchmark programs into Markdown tables.

    /usr/bin/python3 bench/report.py RESULTS_DIR > bench.md

RESULTS_DIR holds the files scripts/bench.sh writes (one JSON file per
benchmark process). Every library figure stands beside its floor measured in
the same run (plain fread/fwrite of the same bytes, memcpy for in-memory
work); "of floor" is floor time / library time, so 1.00 means the library
runs at the floor and 0.50 that it takes twice as long. Both wall-clock
(real) and CPU time are shown: on a shared machine the CPU time is the
steadier of the two. Where a program ran with --benchmark_repetitions, the
median of the repetitions is shown. Only the standard library is used.
"""

import glob
import json
import os
import re
import sys

UNIT_TO_MS = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}


def load_results(directory):
    """All benchmark entries of all JSON files, by name (first one wins)."""
    results = {}
    context = None
    for path in sorted(glob.glob(os.path.join(directory, "*.json"))):
        try:
            with open(path, encoding="utf-8") as f:
                data = json.load(f)
        except (OSError, ValueError) as error:
            print(f"<!-- skipped {os.path.basename(path)}: {error} -->")
            continue
        if context is None:
            context = data.get("context")
        tag = os.path.splitext(os.path.basename(path))[0]
        medians = {}
        for entry in data.get("benchmarks", []):
            if entry.get("error_occurred"):
                continue
            scale = UNIT_TO_MS.get(entry.get("time_unit", "ns"), 1e-6)
            item = {
                "real": entry["real_time"] * scale,
                "cpu": entry["cpu_time"] * scale,
                "entry": entry,
            }
            if entry.get("run_type") == "aggregate":
                # With --benchmark_repetitions the median stands for the runs.
                if entry.get("aggregate_name") == "median":
                    medians[entry.get("run_name", entry["name"])] = item
                continue
            medians.setdefault(entry["name"], None)
            results.setdefault(entry["name"], item)
            results.setdefault(tag + ":" + entry["name"], item)
        for name, item in medians.items():
            if item is not None:
                results[name] = item
                results[tag + ":" + name] = item
    return results, context


def find(results, pattern):
    """The entries whose name matches the regular expression, in name order."""
    rx = re.compile(pattern)
    return [(name, results[name]) for name in sorted(results) if rx.fullmatch(name)]


def first(results, pattern):
    found = find(results, pattern)
    return found[0][1] if found else None


def ms(value):
    if value is None:
        return "–"
    if value >= 100:
        return f"{value:.0f}"
    if value >= 1:
        return f"{value:.1f}"
    return f"{value:.3f}"


def ratio(floor, lib, key):
    if floor is None or lib is None or lib[key] <= 0:
        return "–"
    return f"{floor[key] / lib[key]:.2f}"


def row(label, lib, floor, floor_name):
    if lib is None:
        return f"| {label} | not run | | | | |"
    return (f"| {label} | {ms(lib['real'])} / {ms(lib['cpu'])} | "
            f"{ms(floor['real']) if floor else '–'} / {ms(floor['cpu']) if floor else '–'} | "
            f"{floor_name} | {ratio(floor, lib, 'real')} | {ratio(floor, lib, 'cpu')} |")


# The loads of bench/first_load.py beside their floors.
FRESH_PAIRS = [
    ("first load, cache on", "load", "fread_fresh", "fread into fresh memory"),
    ("first load, cache on", "load", "fread_1mib", "fread, one reused 1 MiB buffer"),
    ("first load, cache off", "load_nocache", "fread_fresh", "fread into fresh memory"),
    ("repeated load, cache on", "repeat", "fread_1mib", "fread, one reused 1 MiB buffer"),
    ("repeated load, cache on", "repeat", "fread_warm", "fread into written buffers"),
    ("repeated load, cache off", "repeat_nocache", "fread_1mib", "fread, one reused 1 MiB buffer"),
    ("points only, first load", "points", "fread_points", "fread of the points, fresh buffers"),
    ("points only, repeated", "points_repeat", "fread_points", "fread of the points, fresh buffers"),
]


def size_of(name, key):
    m = re.search(key + r":(\d+)", name)
    return int(m.group(1)) if m else 0


def main():
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    results, context = load_results(sys.argv[1])
    out = []
    if context:
        out.append(f"Run: {context.get('date', '?')}, {context.get('num_cpus', '?')} CPUs at "
                   f"{context.get('mhz_per_cpu', '?')} MHz, load average "
                   f"{', '.join(f'{x:.2f}' for x in context.get('load_avg', []))}.")
        out.append("")

    out.append("## Library against its floor")
    out.append("")
    out.append("| Operation | luAnaf ms (real / CPU) | floor ms (real / CPU) | floor | "
               "of floor (real) | of floor (CPU) |")
    out.append("|---|---|---|---|---|---|")
    for name, lib in find(results, r"BM_WriterFile/.*"):
        planes, points = size_of(name, "planes"), size_of(name, "points")
        mb = lib["entry"].get("file_MB", 0)
        floor = results.get(name.replace("BM_WriterFile", "BM_RawFwrite"))
        out.append(row(f"write ({planes} planes x 2 x {points} points, {mb:.0f} MB; the link "
                       "reserving ahead on its own)", lib, floor,
                       "fwrite, record-sized chunks"))
        mib = results.get(name.replace("BM_WriterFile", "BM_RawFwrite1MiB"))
        if mib:
            out.append(row("write, against 1 MiB chunks", lib, mib, "fwrite, 1 MiB chunks"))
        moved = results.get(name.replace("BM_WriterFile", "BM_WriterFileMoveIn"))
        if moved:
            out.append(row("write, arrays handed over (setters taking vectors)", moved, floor,
                           "fwrite, record-sized chunks"))
        if moved and mib:
            out.append(row("write, arrays handed over, against 1 MiB chunks", moved, mib,
                           "fwrite, 1 MiB chunks"))
        for floor_name, label in (("BM_RawFwriteFileBytes", "record-sized chunks"),
                                  ("BM_RawFwriteFileBytes1MiB", "1 MiB chunks")):
            own = results.get(name.replace("BM_WriterFile", floor_name))
            if moved and own:
                out.append(row(f"write, arrays handed over, against the file's bytes ({label})",
                               moved, own, f"fwrite of the file's own bytes from memory, {label}"))
        reserved = results.get(name.replace("BM_WriterFile", "BM_WriterFileReserved"))
        mib_reserved = results.get(name.replace("BM_WriterFile", "BM_RawFwrite1MiBReserved"))
        if reserved:
            out.append(row("write, the whole room reserved first (LuAfxsCreateLink::reserve)", reserved,
                           floor, "fwrite, record-sized chunks"))
            if mib:
                out.append(row("write, the whole room reserved first, against 1 MiB chunks", reserved, mib,
                               "fwrite, 1 MiB chunks"))
            if mib_reserved:
                out.append(row("write, the whole room reserved first, against 1 MiB chunks into reserved "
                               "room", reserved, mib_reserved,
                               "fwrite, 1 MiB chunks, the file's room reserved first"))
        copies = results.get(name.replace("BM_WriterFile", "BM_BufferOnly"))
        if copies:
            # The writer's time less what its set calls spend copying the
            # caller's arrays (measured alone by BM_BufferOnly).
            rest = {key: lib[key] - copies[key] for key in ("real", "cpu")}
            out.append(row("write, less the copies of the set calls", rest, floor,
                           "fwrite, record-sized chunks"))
    pairs = [
        ("load, all fields", r"BM_LoadEveryField/.*", r"BM_RawFreadFreshBuffer.*",
         "one fread into fresh memory"),
        ("load, all fields, array cache off", r"BM_LoadEveryFieldCacheOff.*",
         r"BM_RawFreadFreshBuffer.*", "one fread into fresh memory"),
        ("load, all fields, against a reused buffer", r"BM_LoadEveryField/.*",
         r"BM_RawFreadReusedBuffer.*", "fread into one reused 1 MiB buffer (no fresh pages)"),
        ("load, points only", r"BM_LoadPointsOnly.*", r"BM_RawFreadPointsOnly.*",
         "fread of the points, fresh buffer per record"),
        ("open and index (100,000 records)", r"BM_OpenAndIndex.*", r"BM_RawFreadIndexFile.*",
         "one fread of the file"),
        ("results flush (every record)", r"BM_ResultsFlush.*", r"BM_RawFwriteResults.*",
         "fwrite of the result bytes"),
        ("remove normals (rewrite)", r"BM_RemoveNormals.*", r"BM_RawRemoveFloor.*",
         "fread of the file + fwrite of what is kept"),
    ]
    for label, lib_rx, floor_rx, floor_name in pairs:
        out.append(row(label, first(results, lib_rx), first(results, floor_rx), floor_name))
    for name, lib in find(results, r"BM_Blend/points:\d+/sameWay:\d.*"):
        points, same = size_of(name, "points"), size_of(name, "sameWay")
        floor = first(results, rf"BM_BlendMemcpyFloor/points:{points}/.*")
        way = "same direction" if same else "opposite directions"
        out.append(row(f"blend, 2 x {points:,} points, {way}", lib, floor,
                       "memcpy of both contours"))
    def unify_result(name):
        return first(results, rf"unify:{name}/.*") or first(results, rf"{name}/.*")
    unify_memcpy = unify_result("MemcpyFloor")
    floors = {
        "off": (("RawFloor", "fread of the inputs + fwrite of the output"),
                ("HeldFloor", "every input read whole into memory, then the output written from it"),
                ("HeldFloorRecordWrites", "the same, the output written one record per call")),
        "on": (("RawFloor", "fread of the inputs + fwrite of an output of the unblended size"),
               ("RawFloorBlendingOn", "fread of the inputs + fwrite of its own (smaller) output"),
               ("HeldFloorBlendingOn", "every input read whole into memory, then its output written")),
    }
    for way in ("off", "on"):
        label = f"unify 8 scans, blending {way}"
        lib = unify_result(f"UnifyBlending{way.capitalize()}")
        planes = int(lib["entry"].get("planes", 0)) if lib else 0
        for floor_name, floor_text in floors[way]:
            out.append(row(f"{label} ({planes} planes x 2,000 points)", lib,
                           unify_result(floor_name), floor_text))
        out.append(row(f"{label}, against memcpy", lib, unify_memcpy,
                       "memcpy of every input byte"))
    out.append("")

    peer = {key: first(results, rf"hdf5:BM_{key}.*") for key in
            ("RawFwrite", "LuanafWrite", "Hdf5Write", "RawFread", "LuanafLoad/", "LuanafLoadCacheOff",
             "Hdf5Read")}
    peer_found = [name for name, _ in find(results, r"BM_Hdf5Write.*")]
    if peer_found:
        planes = int(peer["Hdf5Write"]["entry"].get("planes", 0))
        out.append(f"## Peer: HDF5 (one dataset per field and plane subset, {planes} planes x 2 "
                   "subsets x 5,000 points, every field)")
        out.append("")
        out.append("| Direction | luAnaf ms (real / CPU) | HDF5 ms (real / CPU) | raw ms (real / CPU) "
                   "| HDF5 time / luAnaf time (real / CPU) | luAnaf of raw (real / CPU) |")
        out.append("|---|---|---|---|---|---|")
        for label, lib, other, floor in (("write", "LuanafWrite", "Hdf5Write", "RawFwrite"),
                                         ("read back in full", "LuanafLoad/", "Hdf5Read",
                                          "RawFread"),
                                         ("read back in full, array cache off",
                                          "LuanafLoadCacheOff", "Hdf5Read", "RawFread")):
            a, b, c = peer[lib], peer[other], peer[floor]
            if a is None or b is None:
                continue
            out.append(f"| {label} | {ms(a['real'])} / {ms(a['cpu'])} | {ms(b['real'])} / "
                       f"{ms(b['cpu'])} | {ms(c['real']) if c else '–'} / "
                       f"{ms(c['cpu']) if c else '–'} | {ratio(b, a, 'real')} / "
                       f"{ratio(b, a, 'cpu')} | {ratio(c, a, 'real')} / {ratio(c, a, 'cpu')} |")
        out.append("")

    fresh = find(results, r"FirstLoad/planes:\d+/[a-z_0-9]+")
    if fresh:
        out.append("## Loads in fresh processes (bench/first_load.py, medians)")
        out.append("")
        out.append("| planes | load | luAnaf ms (real / CPU) | floor ms (real / CPU) | floor | "
                   "of floor (real) | of floor (CPU) |")
        out.append("|---|---|---|---|---|---|---|")
        for planes in sorted({size_of(n, "planes") for n, _ in fresh}):
            def pick(variant):
                return results.get(f"FirstLoad/planes:{planes}/{variant}")
            for label, lib, floor, floor_name in FRESH_PAIRS:
                a, b = pick(lib), pick(floor)
                if a is None or b is None:
                    continue
                out.append(f"| {planes} | " + row(label, a, b, floor_name)[2:])
        out.append("")

    blends = find(results, r"BM_Blend/points:\d+/sameWay:\d.*")
    if blends:
        out.append("## Scaling: blend (time per point should stay flat)")
        out.append("")
        out.append("| points per contour | same direction: ms (CPU) | ns per point | "
                   "opposite: ms (CPU) | ns per point |")
        out.append("|---|---|---|---|---|")
        for points in sorted({size_of(n, "points") for n, _ in blends}):
            cells = []
            for same in (1, 0):
                lib = first(results, rf"BM_Blend/points:{points}/sameWay:{same}.*")
                cells += [ms(lib["cpu"]) if lib else "–",
                          f"{lib['cpu'] * 1e6 / points:.0f}" if lib else "–"]
            out.append(f"| {points:,} | " + " | ".join(cells) + " |")
        out.append("")

    scale = sorted(
        ((int(item["entry"].get("planes", 0)), tag, item)
         for tag, item in results.items() if re.fullmatch(r"unify_scale_\d+:UnifyBlendingOff.*", tag)),
        key=lambda t: t[0])
    if scale:
        out.append("## Scaling: unify, 8 scans x N planes x 2,000 points (CPU time)")
        out.append("")
        out.append("| planes per scan | points in | off: ms | off: µs per plane | on: ms | "
                   "on: µs per plane | floor ms (fread+fwrite) |")
        out.append("|---|---|---|---|---|---|---|")
        for planes, tag, off in scale:
            prefix = tag.split(":")[0]
            off_name = off["entry"].get("run_name", off["entry"]["name"])
            on = results.get(prefix + ":" + off_name.replace("Off", "On"))
            floor = first(results, prefix + r":RawFloor/.*")
            per = planes * 8
            out.append(f"| {planes} | {per * 2000:,} | {ms(off['cpu'])} | "
                       f"{off['cpu'] * 1e3 / per:.0f} | {ms(on['cpu']) if on else '–'} | "
                       f"{on['cpu'] * 1e3 / per:.0f} | {ms(floor['cpu']) if floor else '–'} |"
                       if on else
                       f"| {planes} | {per * 2000:,} | {ms(off['cpu'])} | "
                       f"{off['cpu'] * 1e3 / per:.0f} | – | – | – |")
        out.append("")
    print("\n".join(out))
    return 0


if __name__ == "__main__":
    sys.exit(main())

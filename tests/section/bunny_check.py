#!/usr/bin/env python3
"""The bunny path on real data, checked against the triangles themselves.

Runs examples/bunny.py (fetch, PLY, slice, partial scans, unify with
blending, compare, plot), then checks, with numpy straight from the
triangles and not through the cut's own code:
- every point lies on its plane within 1e-9 of the plane spacing;
- consecutive points of a polyline lie on one triangle (the one the cut
  says each point leaves along);
- the summed polyline length of a plane equals the summed lengths of the
  triangles' cuts by that plane;
- where a plane meets no border edge of the mesh its polylines are closed,
  and every open polyline ends on border edges;
- comparing the full slice with itself gives distances of 0.
Exit code 77 (skipped) when the package cannot be fetched.
Usage: bunny_check.py LUAFXS SOURCE_DIR WORK_DIR CACHE_DIR
"""
import os
import subprocess
import sys

import numpy as np

import luanaf

SKIP = 77


def main(tool, source, work, cache):
    os.makedirs(work, exist_ok=True)
    run = subprocess.run([sys.executable, os.path.join(source, "examples", "bunny.py"),
                          "--luafxs", tool, "--cache", cache, "--out", work],
                         capture_output=True, text=True)
    sys.stdout.write(run.stdout)
    sys.stderr.write(run.stderr)
    if run.returncode == SKIP:
        print("SKIPPED: " + run.stdout.strip())
        return SKIP
    assert run.returncode == 0, "bunny.py failed"
    sys.path.insert(0, os.path.join(source, "examples"))
    import bunny  # the same fetch, from the cache
    vertices, faces = bunny.fetch(cache)
    # The PLY holds 32-bit coordinates, as the tool's mesh reader keeps them.
    V = np.asarray(vertices, dtype=np.float32).astype(np.float64)
    F = np.asarray(faces, dtype=np.int64)

    cut = luanaf.slice(V, F, planes=bunny.PLANES, normal=(0, 1, 0))
    fam = cut["family"]
    origin, normal, spacing = np.array(fam["point"]), np.array(fam["normal"]), fam["dist_bw_planes"]

    # The file written by the tool holds exactly the library's cut.
    with luanaf.open(os.path.join(work, "nominal.afxs")) as f:
        stored = {s.plane_id: (np.array(s.points), np.array(s.segments)) for s in f}
    assert sorted(stored) == [p["plane_id"] for p in cut["planes"]]
    for p in cut["planes"]:
        assert np.array_equal(stored[p["plane_id"]][0], p["points"])
        assert np.array_equal(stored[p["plane_id"]][1], p["segments"])

    h = (V - origin) @ normal
    # Border edges: used by one triangle only (after merging equal vertices).
    U, inverse = np.unique(V, axis=0, return_inverse=True)
    G = inverse.reshape(-1)[F]
    edges = np.sort(np.concatenate([G[:, [0, 1]], G[:, [1, 2]], G[:, [2, 0]]]), axis=1)
    unique_edges, counts = np.unique(edges, axis=0, return_counts=True)
    border = unique_edges[counts == 1]
    hm = np.zeros(inverse.max() + 1)
    hm[inverse.reshape(-1)] = h
    border_lo = np.minimum(hm[border[:, 0]], hm[border[:, 1]])
    border_hi = np.maximum(hm[border[:, 0]], hm[border[:, 1]])

    checked_pairs = 0
    for p in cut["planes"]:
        k = p["plane_id"]
        H = k * spacing
        pts, segs, fcs = p["points"], p["segments"], p["faces"]
        # 1. On the plane.
        off = np.abs((pts - origin) @ normal - H)
        assert off.max() <= 1e-9 * spacing, (k, off.max())
        # 2. Consecutive points on the triangle each point leaves along.
        starts = np.concatenate([[0], segs[:-1]])
        length = 0.0
        for s, e, closed in zip(starts, segs, p["closed"]):
            for i in range(s, e - 1):
                a, b, c = V[F[fcs[i]]]
                for q in (pts[i], pts[i + 1]):
                    n = np.cross(b - a, c - a)
                    assert abs((q - a) @ n) <= 1e-9 * np.linalg.norm(n) * spacing, (k, i)
                    lam = np.linalg.lstsq(np.stack([b - a, c - a]).T, q - a, rcond=None)[0]
                    assert lam.min() >= -1e-9 and lam.sum() <= 1 + 1e-9, (k, i, lam)
                checked_pairs += 1
            length += np.linalg.norm(np.diff(pts[s:e], axis=0), axis=1).sum()
            # 4. Open polylines end on border edges.
            if not closed:
                on = (border_lo < H) & (border_hi >= H)
                a, b = U[border[on, 0]], U[border[on, 1]]
                da, db = hm[border[on, 0]] - H, hm[border[on, 1]] - H
                crossings = a + (b - a) * (da / (da - db))[:, None]
                for q in (pts[s], pts[e - 1]):
                    gap = np.linalg.norm(crossings - q, axis=1).min()
                    assert gap <= 1e-9 * spacing, (k, gap)
        # 3. Summed lengths equal the triangles' own cuts.
        hf = h[F]
        below = hf < H
        crossing = below.any(axis=1) & (~below).any(axis=1)
        total = 0.0
        for tri, hb in zip(F[crossing], hf[crossing]):
            ends = []
            for i in range(3):
                u, w = tri[i], tri[(i + 1) % 3]
                du, dw = hb[i] - H, hb[(i + 1) % 3] - H
                if (du < 0) != (dw < 0):
                    t = du / (du - dw)
                    ends.append(V[u] + (V[w] - V[u]) * t)
            total += np.linalg.norm(ends[0] - ends[1])
        assert abs(total - length) <= 1e-9 * max(total, 1), (k, total, length)
        # 4. A plane that meets no border edge gives closed loops only.
        if not ((border_lo < H) & (border_hi >= H)).any():
            assert all(p["closed"]), k
    assert checked_pairs > 1000, checked_pairs

    # 5. The full slice against itself: all distances 0.
    same = subprocess.run([tool, "compare", os.path.join(work, "nominal.afxs"),
                           os.path.join(work, "nominal.afxs"), "-o",
                           os.path.join(work, "self.afxs"), "--json"],
                          capture_output=True, text=True)
    assert same.returncode == 0, same.stderr
    with luanaf.open(os.path.join(work, "self.afxs")) as f:
        for s in f:
            assert np.all(np.asarray(s.distances) == 0), s.plane_id
    # The blended scans compare with the full slice within a small deviation.
    with luanaf.open(os.path.join(work, "deviation.afxs")) as f:
        worst = max(np.abs(np.asarray(s.distances)).max() for s in f)
    assert worst < 5 * spacing, worst
    subprocess.run([tool, "validate", os.path.join(work, "unified.afxs")], check=True)
    print("bunny: %d planes, %d point pairs checked, worst deviation of the blended scans %.6f"
          % (len(cut["planes"]), checked_pairs, worst))
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:5]))

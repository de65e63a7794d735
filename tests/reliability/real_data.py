"""Planes, header and cameras that the tests write through the Python package.

Imported by the tests and by the Python children they start and kill.
"""

import numpy as np

HEADER = {"version": 1, "point": (0, 0, 0), "normal": (0, 0, 1), "num_planes": 8, "dist_bw_planes": 2.5}
CAMERAS = np.array([[0.0, 250.0, 50.0]])


def python_planes(count, n):
    """count planes of n points on circles, with normals, segments and aux positions."""
    angles = np.linspace(0, 2 * np.pi, n, endpoint=False)
    planes = []
    for plane in range(count):
        normals = np.stack([np.cos(angles), np.sin(angles), np.zeros(n)], axis=1)
        points = normals * (50 + plane)
        points[:, 2] = 2.5 * plane
        planes.append(
            {
                "plane_id": plane,
                "subset_id": 1,
                "points": points,
                "normals": normals,
                "segments": np.array([n // 2, n], dtype=np.int32),
                "aux_ctrl_pos": np.arange(n, dtype=np.uint32),
                "aux_ctrl_counts": np.ones(n, dtype=np.uint32),
            }
        )
    return planes

"""luanaf: cross-section files of measured 3D objects, from Python.

A thin layer over the luAnaf C++ library: every byte is read and written by
the library itself. Arrays are numpy arrays:

=====================  ==========  ==========================================
field                  dtype       shape
=====================  ==========  ==========================================
points, normals        float64     (n, 3)
res_points             float64     (n, 3)
segments               int32       (k,)   running point counts
aux_ctrl_pos           uint32      (m,)
aux_ctrl_offsets       uint32      (g,)
aux_ctrl_counts        uint32      (g,)
distances              float64     (n,)
cameras                float64     (c, 3)
=====================  ==========  ==========================================

Reading::

    with luanaf.open("scan_XS1.afxs") as f:
        print(f.header)
        for s in f:
            print(s.plane_id, s.subset_id, s.points.shape)

Failures raise :class:`luanaf.Error`. The library's log records go to the
:mod:`logging` logger ``"luanaf"`` (progress at INFO, failures at ERROR).

Beside this surface, the library's own classes are available under their C++
names (LuAfxsCreateLink, LuAfxsCreateData, LuAfxsUserLink, LuAfxsUserDataSet,
LuAfxsUserData, LuAfxsHeader, LuAfxsPlane) for code that follows the C++ API
step by step; their vectors cross as copies, and false results raise Error.

Loaded arrays of closed files are kept for later loads up to a limit
(:func:`array_cache_limit`, 256 MiB unless :func:`set_array_cache_limit`
changes it; 0 turns the cache off). Arrays handed out as numpy views keep
their file's data alive and are only recycled after the last view is gone.

The library keeps process-wide state without locks; every call holds the GIL
for its whole duration, so calls from several Python threads run one at a time.
"""

import atexit as _atexit
import os as _os

import numpy as _np

from . import _luanaf
from ._luanaf import (
    LuAfxsCreateData,
    LuAfxsCreateLink,
    LuAfxsHeader,
    LuAfxsPlane,
    LuAfxsUserData,
    LuAfxsUserDataSet,
    LuAfxsUserLink,
    array_cache_bytes,
    array_cache_limit,
    clear_array_cache,
    set_array_cache_limit,
    set_xyz_dump_directory,
)

__all__ = [
    "Error",
    "File",
    "Subset",
    "open",
    "write",
    "remove_fields",
    "unify",
    "MASK_POINTS",
    "MASK_SEGMENTS",
    "MASK_NORMALS",
    "MASK_AUX",
    "MASK_RESPOINTS",
    "MASK_DISTANCES",
    "MASK_ALL",
    "KEEP_SUBSET_IDS",
    "FIELD_MASKS",
    "LuAfxsCreateData",
    "LuAfxsCreateLink",
    "LuAfxsHeader",
    "LuAfxsPlane",
    "LuAfxsUserData",
    "LuAfxsUserDataSet",
    "LuAfxsUserLink",
    "set_xyz_dump_directory",
    "array_cache_limit",
    "set_array_cache_limit",
    "array_cache_bytes",
    "clear_array_cache",
]

MASK_POINTS = _luanaf.MASK_POINTS
MASK_SEGMENTS = _luanaf.MASK_SEGMENTS
MASK_NORMALS = _luanaf.MASK_NORMALS
MASK_AUX = _luanaf.MASK_AUX
MASK_RESPOINTS = _luanaf.MASK_RESPOINTS
MASK_DISTANCES = _luanaf.MASK_DISTANCES
MASK_ALL = _luanaf.MASK_ALL
#: Output id that makes :func:`unify` keep each plane's own subset id.
KEEP_SUBSET_IDS = _luanaf.KEEP_SUBSET_IDS

#: Field-group names accepted wherever a mask is, with their mask bits.
FIELD_MASKS = {
    "points": MASK_POINTS,
    "segments": MASK_SEGMENTS,
    "normals": MASK_NORMALS,
    "aux": MASK_AUX,
    "res_points": MASK_RESPOINTS,
    "distances": MASK_DISTANCES,
}


class Error(OSError):
    """A failure reported by the luAnaf library.

    Attributes:
        code: the library's error code (``0xC41B00nn``) of the last report
            of the failed operation, or None when the library reported none
            (a false result without a report, such as a file without records).
        path: the file concerned.
        reports: every error report of the operation, each a dict with
            ``code``, ``line``, ``source``, ``path``, ``build_date`` and
            ``system_text``.
        errno: set for a missing file (ENOENT) or a read-only one (EACCES).
    """

    def __init__(self, message, code=None, path=None, reports=(), errno=None):
        super().__init__(errno, message, path)
        self.message = message
        self.code = code
        self.path = path
        self.reports = list(reports)

    def __str__(self):
        return "%s: %s" % (self.path, self.message) if self.path else self.message

    def __reduce__(self):
        return (
            _rebuild_error,
            (self.message, self.code, self.path, self.reports, self.errno),
        )


def _rebuild_error(message, code, path, reports, errno):
    return Error(message, code=code, path=path, reports=reports, errno=errno)


_luanaf._set_error_class(Error)
# The library's sinks call into Python; hand them back before the
# interpreter shuts down.
_atexit.register(_luanaf._shutdown)


def _path(path):
    return _os.fsdecode(_os.fspath(path))


def _mask(mask_or_names):
    """A field mask from an int or from field-group names (see FIELD_MASKS)."""
    if isinstance(mask_or_names, (int, _np.integer)):
        return int(mask_or_names)
    if isinstance(mask_or_names, str):
        mask_or_names = [mask_or_names]
    mask = 0
    for name in mask_or_names:
        try:
            mask |= FIELD_MASKS[name]
        except KeyError:
            raise ValueError(
                "unknown field group %r (expected one of %s)"
                % (name, ", ".join(FIELD_MASKS))
            ) from None
    return mask


class Subset:
    """One plane of one subset in an open :class:`File`.

    The arrays ``points``, ``normals``, ``segments`` and the three
    ``aux_ctrl_*`` arrays are read-only views of the library's own vectors,
    without a copy; they keep the file object alive, and stay valid after
    :meth:`File.close`. ``res_points`` and ``distances`` are copies, because
    :meth:`set_results` replaces them. A field not loaded when the file was
    opened is loaded on first access.
    """

    __slots__ = ("_f", "_i")

    def __init__(self, f, index):
        self._f = f
        self._i = index

    plane_id = property(lambda self: self._f.plane_id(self._i), doc="Plane number.")
    subset_id = property(lambda self: self._f.subset_id(self._i), doc="Subset number.")
    state = property(
        lambda self: self._f.state(self._i),
        doc="Mask of the fields in memory (loaded or set); 0 when not loaded.",
    )
    file_state = property(
        lambda self: self._f.file_state(self._i),
        doc="Mask of the fields the record holds in the file.",
    )
    points = property(lambda self: self._f.field(self._i, "points"), doc="(n, 3) float64 view.")
    normals = property(lambda self: self._f.field(self._i, "normals"), doc="(n, 3) float64 view.")
    segments = property(
        lambda self: self._f.field(self._i, "segments"),
        doc="(k,) int32 view: running point counts, one per segment.",
    )
    aux_ctrl_pos = property(
        lambda self: self._f.field(self._i, "aux_ctrl_pos"), doc="(m,) uint32 view."
    )
    aux_ctrl_offsets = property(
        lambda self: self._f.field(self._i, "aux_ctrl_offsets"), doc="(g,) uint32 view."
    )
    aux_ctrl_counts = property(
        lambda self: self._f.field(self._i, "aux_ctrl_counts"), doc="(g,) uint32 view."
    )
    res_points = property(
        lambda self: self._f.field(self._i, "res_points"), doc="(n, 3) float64 copy."
    )
    distances = property(lambda self: self._f.field(self._i, "distances"), doc="(n,) float64 copy.")

    def set_results(self, res_points=None, distances=None):
        """Attaches result points ((n, 3) float64) and/or distances ((n,)
        float64) in memory; :meth:`flush` writes them. They are meant to be
        index-parallel to ``points``; the library does not check that."""
        self._f.set_results(self._i, res_points, distances)

    def flush(self):
        """Appends the attached results to the file as a results record.

        Raises Error when the record already has results, nothing is
        attached, or the write failed (e.g. a read-only file, a full disk,
        another process reading or changing the file, or a file changed
        since it was opened); the file is then as it was."""
        self._f.flush(self._i)

    def as_dict(self):
        """The plane as a dict of arrays, as :func:`write` accepts it."""
        return {
            "plane_id": self.plane_id,
            "subset_id": self.subset_id,
            "points": self.points,
            "normals": self.normals,
            "segments": self.segments,
            "aux_ctrl_pos": self.aux_ctrl_pos,
            "aux_ctrl_offsets": self.aux_ctrl_offsets,
            "aux_ctrl_counts": self.aux_ctrl_counts,
            "res_points": self.res_points,
            "distances": self.distances,
        }

    def __repr__(self):
        return "<luanaf.Subset plane %d subset %d>" % (self.plane_id, self.subset_id)


class File:
    """An existing cross-section file, loaded as a set of plane subsets.

    Opening verifies the file first and raises :class:`Error` when it cannot
    be read; the file is never deleted (the library's data set would delete a
    file it cannot verify, so it is only given files that passed).

    ``fields`` (a mask or field-group names) selects what is loaded up front;
    other fields load on first access. Iterating yields :class:`Subset`
    objects in the file's plane order. ``close()`` (or leaving a ``with``
    block) closes the file handle; arrays already taken stay valid.
    """

    def __init__(self, path, fields=MASK_ALL):
        self._f = _luanaf.File(_path(path), _mask(fields))

    @property
    def path(self):
        return self._f.path

    @property
    def header(self):
        """The header as a dict: version, point, normal, num_planes,
        dist_bw_planes. The reader does not keep the VER value, so version
        reads 0; see update_supported."""
        return self._f.header()

    @property
    def cameras(self):
        """(c, 3) float64 array, a copy (the library rereads the table on
        every request)."""
        return self._f.cameras()

    @property
    def update_supported(self):
        """True when the header has a VER line with a value of 0 or more."""
        return self._f.update_supported

    @property
    def writable(self):
        return self._f.writable

    @property
    def closed(self):
        return self._f.closed

    @property
    def subsets(self):
        return [Subset(self._f, i) for i in range(len(self._f))]

    def find(self, plane_id, subset_id):
        """The first subset with these ids, or None."""
        i = self._f.find(plane_id, subset_id)
        return None if i < 0 else Subset(self._f, i)

    def close(self):
        self._f.close()

    def __len__(self):
        return len(self._f)

    def __getitem__(self, index):
        if isinstance(index, slice):
            return [Subset(self._f, i) for i in range(*index.indices(len(self._f)))]
        n = len(self._f)
        if index < 0:
            index += n
        if not 0 <= index < n:
            raise IndexError("plane subset index out of range")
        return Subset(self._f, index)

    def __iter__(self):
        for i in range(len(self._f)):
            yield Subset(self._f, i)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def __repr__(self):
        return "<luanaf.File %r, %d plane subsets%s>" % (
            self.path,
            len(self),
            ", closed" if self.closed else "",
        )


def open(path, fields=MASK_ALL):  # noqa: A001 - the Pythonic name
    """Opens an existing file; see :class:`File`."""
    return File(path, fields)


_PLANE_ARRAYS = {
    "points": (_np.float64, 2),
    "normals": (_np.float64, 2),
    "segments": (_np.int32, 1),
    "aux_ctrl_pos": (_np.uint32, 1),
    "aux_ctrl_offsets": (_np.uint32, 1),
    "aux_ctrl_counts": (_np.uint32, 1),
    "res_points": (_np.float64, 2),
    "distances": (_np.float64, 1),
}


_HEADER_KEYS = {"version", "point", "normal", "num_planes", "dist_bw_planes"}
_PLANE_KEYS = {"plane_id", "subset_id"} | set(_PLANE_ARRAYS)


def _plane_dict(plane, index):
    if isinstance(plane, dict):
        unknown = set(plane) - _PLANE_KEYS
        if unknown:
            raise ValueError("plane %d: unknown keys %s" % (index, ", ".join(sorted(unknown))))
        get = plane.get
    else:
        def get(key, default=None):
            return getattr(plane, key, default)
    out = {}
    for key in ("plane_id", "subset_id"):
        value = get(key)
        if value is None:
            raise ValueError("plane %d: %s is required" % (index, key))
        out[key] = int(value)
    for key, (dtype, ndim) in _PLANE_ARRAYS.items():
        value = get(key)
        if value is None:
            continue
        a = _np.asarray(value)
        if a.size == 0:
            a = a.reshape((0, 3) if ndim == 2 else (0,))
        if _np.issubdtype(dtype, _np.integer):
            if a.size and not _np.issubdtype(a.dtype, _np.integer):
                raise TypeError("plane %d: %s must hold integers" % (index, key))
            if a.size and (a.min() < _np.iinfo(dtype).min or a.max() > _np.iinfo(dtype).max):
                raise ValueError("plane %d: %s out of range for %s" % (index, key, _np.dtype(dtype)))
        a = _np.ascontiguousarray(a, dtype=dtype)
        expected = "(n, 3)" if ndim == 2 else "(n,)"
        if a.ndim != ndim or (ndim == 2 and a.shape[1] != 3):
            raise ValueError("plane %d: %s must have shape %s" % (index, key, expected))
        out[key] = a
    offsets = out.pop("aux_ctrl_offsets", None)
    counts = out.get("aux_ctrl_counts")
    if offsets is not None and offsets.size and counts is not None:
        # The library derives the offsets from the counts; given ones must agree.
        derived = _np.concatenate(([0], _np.cumsum(counts, dtype=_np.uint64)[:-1]))
        if offsets.shape != derived.shape or not _np.array_equal(offsets, derived):
            raise ValueError(
                "plane %d: aux_ctrl_offsets must be the running sum of aux_ctrl_counts" % index
            )
    return out


def write(path, header, planes, cameras=None):
    """Writes a new file (replacing a writable existing one).

    ``header``: a dict with any of version, point, normal, num_planes,
    dist_bw_planes (missing ones are 0). ``planes``: an iterable of dicts or
    objects (e.g. :class:`Subset`) with plane_id, subset_id and any of the
    arrays; empty or missing arrays are not written, aux_ctrl_offsets are
    derived from aux_ctrl_counts (given ones must agree). ``cameras``: (c, 3).
    Everything is checked before the file is created; on a failure the
    partial file is removed and Error (or ValueError/TypeError for bad
    arguments) is raised. The arrays are copied into the library's buffers.
    """
    unknown = set(header) - _HEADER_KEYS
    if unknown:
        raise ValueError("header: unknown keys %s" % ", ".join(sorted(unknown)))
    planes = [_plane_dict(p, i) for i, p in enumerate(planes)]
    if cameras is not None:
        cameras = _np.ascontiguousarray(cameras, dtype=_np.float64)
        if cameras.size == 0:
            cameras = cameras.reshape(0, 3)
    _luanaf.write(_path(path), dict(header), planes, cameras)


def remove_fields(path, mask_or_names):
    """Removes field groups from every record by rewriting the file.

    ``mask_or_names``: a mask or field-group names ("points", "segments",
    "normals", "aux", "res_points", "distances"). As in the library, result
    points and distances always go too when anything is removed. Returns True
    when the file was rewritten, False when no record held any of the groups
    (the file is then untouched). A file that cannot be verified or is
    read-only, that another process is reading or changing, or whose rewrite
    cannot be completed on the disk raises Error and is left as it is.
    """
    return _luanaf.remove_fields(_path(path), _mask(mask_or_names))


def unify(inputs, output, output_ids=None, blend=False, xs_id=0):
    """Unifies the data sets of one cross-section into one output file.

    ``inputs``: paths of the data-set files (each verified first; nothing is
    deleted). ``output``: the file to write (header and cameras are taken
    from the first input). ``output_ids``: one subset id per input under
    which its planes are written, or KEEP_SUBSET_IDS (0xFFFFFFFF) to keep
    each plane's own. By default, when every input holds exactly one subset,
    its planes go out under that subset's id (and line up by plane number);
    otherwise every input keeps its subset ids. ``blend``: blend the
    overlapping contours of the first two subsets of each plane. ``xs_id``:
    the cross-section id in the library's registry, cleared again afterwards.

    Sets the library's process-wide blending switch and current
    cross-section id. Raises Error when the output could not be written.
    Positions that could not be blended are logged at ERROR and left out, as
    the library does.
    """
    inputs = [_path(p) for p in inputs]
    output = _path(output)
    out_abs = _os.path.abspath(output)
    for p in inputs:
        if _os.path.abspath(p) == out_abs or (
            _os.path.exists(output) and _os.path.exists(p) and _os.path.samefile(p, output)
        ):
            raise ValueError("unify: the output must not be one of the inputs: %r" % output)
    if output_ids is not None:
        output_ids = [int(i) for i in output_ids]
    _luanaf.unify(inputs, output, output_ids, bool(blend), int(xs_id))

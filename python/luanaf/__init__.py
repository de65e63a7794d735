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

Failures raise :class:`luanaf.Error` or one of its subclasses, each also
the matching built-in exception: :class:`FileNotFoundError`,
:class:`IsADirectoryError`, :class:`PermissionError`,
:class:`NotARegularFileError`, :class:`SameFileError` (a ValueError) and
:class:`DataError` (a ValueError, for data that would make a damaged file).
Wrong argument types raise TypeError, negative or too large ids ValueError.
The library's log records go to the :mod:`logging` logger ``"luanaf"``
(progress at INFO, failures at ERROR).

Writing never destroys or damages a file. Every function that creates or
rewrites a file (:func:`write`, :func:`unify`, :func:`remove_fields`):

- refuses, before anything is written, an output that is a directory, a
  FIFO or other special file, a read-only file (owner-write bit clear,
  whoever runs), or the same file as one of the inputs (compared by device
  and inode, so through symlinks and hard links too);
- writes to a new temporary file beside the output, flushes it to disk and
  renames it over the output only after everything succeeded and the written
  file was checked as ``luafxs validate`` checks it. On any failure (a full
  disk, bad data, KeyboardInterrupt during the call) the file at the output's
  name is left exactly as it was (or absent) and no temporary stays behind;
- writes through a symlink to the file it names, keeping the link. Renaming
  gives the output's name a new file: other hard links to the old one keep
  the old contents.

Appending results (:meth:`Subset.flush`, one subset; :meth:`File.flush_results`,
every subset with new results, all or nothing) writes into the open file
itself, as the library does; it refuses a read-only file and checks the
lengths first.

Beside this surface, the library's own classes are available under their C++
names (LuAfxsCreateLink, LuAfxsCreateData, LuAfxsUserLink, LuAfxsUserDataSet,
LuAfxsUserData, LuAfxsHeader, LuAfxsPlane) for code that follows the C++ API
step by step; their vectors cross as copies, and false results raise Error.
They write in place as in C++ (no temporary file), but LuAfxsCreateLink
refuses a directory, special or read-only path, the two flush methods refuse
data whose lengths disagree, and LuAfxsUserDataSet.remove refuses a read-only
file and a removal that would leave a damaged file (DataError).

Field-group names (wherever a mask is taken) are those of the luafxs tool:
points, segments, normals, aux, results, distances, all; "res_points" is
accepted for "results", and planes and :meth:`Subset.set_results` take
``results`` for ``res_points``.

Nothing of a closed file is kept unless the array cache is turned on
(:func:`set_array_cache_enabled`): a script that loads large files one after
another turns it on, and loaded arrays of closed files are then kept for later
loads up to a limit (:func:`array_cache_limit`, 256 MiB unless
:func:`set_array_cache_limit` changes it; 0 keeps nothing). Arrays handed out as numpy views keep
their file's data alive and are only recycled after the last view is gone.

The library keeps process-wide state without locks; every call holds the GIL
for its whole duration, so calls from several Python threads run one at a time.
"""

import atexit as _atexit
import builtins as _builtins
import errno as _errno
import operator as _operator
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
    array_cache_enabled,
    array_cache_limit,
    clear_array_cache,
    set_array_cache_enabled,
    set_array_cache_limit,
    set_xyz_dump_directory,
)

__all__ = [
    "Error",
    "FileNotFoundError",
    "IsADirectoryError",
    "PermissionError",
    "NotARegularFileError",
    "SameFileError",
    "DataError",
    "File",
    "Subset",
    "open",
    "write",
    "remove_fields",
    "unify",
    "UnifySummary",
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
    "array_cache_enabled",
    "set_array_cache_enabled",
    "array_cache_limit",
    "set_array_cache_limit",
    "array_cache_bytes",
    "clear_array_cache",
    "slice",
    "compare",
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

#: Field-group names accepted wherever a mask is, with their mask bits: the
#: names of the luafxs tool ("results" for result points, "all"), and
#: "res_points" as this package names the field.
FIELD_MASKS = {
    "points": MASK_POINTS,
    "segments": MASK_SEGMENTS,
    "normals": MASK_NORMALS,
    "aux": MASK_AUX,
    "results": MASK_RESPOINTS,
    "res_points": MASK_RESPOINTS,
    "distances": MASK_DISTANCES,
    "all": MASK_ALL,
}

_U32_MAX = 0xFFFFFFFF


class Error(OSError):
    """A failure reported by the luAnaf library or refused by this package.

    Attributes:
        code: the library's error code (``0xC41B00nn``) of the last report
            of the failed operation, or None when the library reported none
            (a refusal of this package, or a false result without a report,
            such as a file without records).
        path: the file concerned.
        reports: every error report of the operation, each a dict with
            ``code``, ``line``, ``source``, ``path``, ``build_date`` and
            ``system_text``.
        errno: the errno value that names the cause, when there is one
            (ENOENT missing, EISDIR directory, EACCES read-only, EINVAL
            special file, EEXIST an input named as output, ENOSPC, ...).

    The subclasses below are raised where they fit; each is also the
    built-in exception of the same cause, so ``except FileNotFoundError``
    and ``except luanaf.Error`` both catch a missing file.
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
            (type(self), self.message, self.code, self.path, self.reports, self.errno),
        )


class FileNotFoundError(Error, _builtins.FileNotFoundError):
    """The file, or the folder an output should go to, does not exist."""


class IsADirectoryError(Error, _builtins.IsADirectoryError):
    """A directory was named where a file is read or written."""


class PermissionError(Error, _builtins.PermissionError):
    """The file is read-only (owner-write bit clear) or access was denied."""


class NotARegularFileError(Error):
    """A FIFO, device or socket was named where a file is read or written."""


class SameFileError(Error, ValueError):
    """An output is one of the inputs (the same file, also through a link)."""


class DataError(Error, ValueError):
    """The data would make a file that ``luafxs validate`` calls damaged:
    lengths that disagree, segments that do not tile the points, a removal
    that leaves segments without points, no planes at all."""


_ERRNO_CLASSES = {
    _errno.ENOENT: FileNotFoundError,
    _errno.ENOTDIR: FileNotFoundError,
    _errno.EISDIR: IsADirectoryError,
    _errno.EACCES: PermissionError,
    _errno.EPERM: PermissionError,
    _errno.EROFS: PermissionError,
}
_KIND_CLASSES = {
    "data": DataError,
    "same_file": SameFileError,
    "not_regular": NotARegularFileError,
}


def _make_error(message, code=None, path=None, reports=(), errno=None, kind=""):
    """The exception of a failure: its class from the kind, else the errno."""
    cls = _KIND_CLASSES.get(kind) or _ERRNO_CLASSES.get(errno, Error)
    return cls(message, code=code, path=path, reports=reports, errno=errno)


def _rebuild_error(cls, message, code, path, reports, errno):
    return cls(message, code=code, path=path, reports=reports, errno=errno)


_luanaf._set_error_class(_make_error)
# The library's sinks call into Python; hand them back before the
# interpreter shuts down.
_atexit.register(_luanaf._shutdown)


def _path(path):
    return _os.fsdecode(_os.fspath(path))


def _paths(paths, what):
    """A list of paths; a single path (a string) is a TypeError, not a list
    of one-letter paths."""
    if isinstance(paths, (str, bytes, _os.PathLike)):
        raise TypeError("%s: expected a list of paths, got a single path %r" % (what, paths))
    return [_path(p) for p in paths]


def _u32(value, what):
    """An id or number that the file stores as u32: 0 to 4294967295."""
    if isinstance(value, bool):
        raise TypeError("%s: expected an integer, got %r" % (what, value))
    try:
        value = _operator.index(value)
    except TypeError:
        raise TypeError("%s: expected an integer, got %r" % (what, value)) from None
    if not 0 <= value <= _U32_MAX:
        raise ValueError("%s: %d is out of range (0 to %d)" % (what, value, _U32_MAX))
    return value


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
    results = property(
        lambda self: self._f.field(self._i, "res_points"),
        doc="The result points under the luafxs tool's name; same as res_points.",
    )
    distances = property(lambda self: self._f.field(self._i, "distances"), doc="(n,) float64 copy.")

    def set_results(self, res_points=None, distances=None, *, results=None):
        """Attaches result points ((n, 3) float64; ``results`` is the same
        argument under the tool's name) and/or distances ((n,) float64) in
        memory; :meth:`flush` writes them.

        Checked before anything is attached (ValueError, a :class:`DataError`
        for lengths, naming the plane, subset and field): the shapes; when the
        record holds points, one result point and one distance per point;
        without points, as many distances as result points (also against
        results attached by an earlier call). Neither may be empty."""
        if results is not None:
            if res_points is not None:
                raise TypeError("set_results: give res_points or results, not both")
            res_points = results
        self._f.set_results(self._i, res_points, distances)

    def flush(self):
        """Appends the attached results to the file as a results record.

        Raises Error when the record already has results, nothing is
        attached, or the write failed (e.g. a read-only file, a full disk,
        another process reading or changing the file, or a file changed
        since it was opened); the file is then as it was. :class:`PermissionError`
        for a read-only file. This updates the open file in place (as the
        library does), unlike the functions that create files."""
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
        """The first subset with these ids, or None. Ids are u32: a negative
        one raises ValueError."""
        i = self._f.find(_u32(plane_id, "plane_id"), _u32(subset_id, "subset_id"))
        return None if i < 0 else Subset(self._f, i)

    def close(self):
        self._f.close()

    def __len__(self):
        return len(self._f)

    def flush_results(self):
        """Appends the results attached with :meth:`Subset.set_results` to
        every subset that has new ones, all or nothing.

        When one subset's append fails (a full disk, a write error) the ones
        before it are taken back and the file has exactly its old bytes;
        the results stay attached, so a later call can try again. Raises
        Error (:class:`PermissionError` for a read-only file); only when
        another process changed the file meanwhile, or putting it back failed
        too, do some subsets keep their (complete) results, and the message
        says how many. Subsets without new results are left alone."""
        self._f.flush_results()

    def __getitem__(self, index):
        if isinstance(index, _builtins.slice):
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
        unknown = set(plane) - _PLANE_KEYS - {"results"}
        if unknown:
            raise ValueError("plane %d: unknown keys %s" % (index, ", ".join(sorted(unknown))))
        if "results" in plane:
            if plane.get("res_points") is not None:
                raise ValueError("plane %d: give res_points or results, not both" % index)
            plane = dict(plane, res_points=plane["results"])
            del plane["results"]
        get = plane.get
    else:
        def get(key, default=None):
            return getattr(plane, key, default)
    out = {}
    for key in ("plane_id", "subset_id"):
        value = get(key)
        if value is None:
            raise ValueError("plane %d: %s is required" % (index, key))
        out[key] = _u32(value, "plane %d: %s" % (index, key))
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
    _check_lengths(out, index)
    return out


def _data_error(message):
    return DataError(message, errno=_errno.EINVAL)


def _check_lengths(plane, index):
    """Every length and total that the file format relates, as ``luafxs
    validate`` checks them. An empty array is not written and counts as
    absent."""
    where = "plane %d (plane_id %d, subset_id %d)" % (index, plane["plane_id"], plane["subset_id"])
    n = {k: len(v) for k, v in plane.items() if k in _PLANE_ARRAYS and len(v)}
    points = n.get("points")
    if points is not None:
        for key in ("normals", "res_points", "distances"):
            if key in n and n[key] != points:
                raise _data_error(
                    "%s: %s has %d entries but there are %d points" % (where, key, n[key], points)
                )
    elif "res_points" in n and "distances" in n and n["res_points"] != n["distances"]:
        raise _data_error(
            "%s: %d distances but %d res_points (one distance per result point)"
            % (where, n["distances"], n["res_points"])
        )
    if "segments" in n:
        segments = plane["segments"].astype(_np.int64)
        have = points or 0
        steps = _np.diff(_np.concatenate(([0], segments)))
        if (steps < 0).any() or segments[-1] > have:
            bad = int(_np.argmax((steps < 0) | (segments > have)))
            raise _data_error(
                "%s: segments entry %d is %d; segments are running point counts that never "
                "decrease and end at the number of points (%d)"
                % (where, bad, int(segments[bad]), have)
            )
        if segments[-1] != have:
            raise _data_error(
                "%s: segments end at %d but there are %d points; the segments must cover "
                "exactly the points" % (where, int(segments[-1]), have)
            )
    if "aux_ctrl_counts" in n:
        total = int(plane["aux_ctrl_counts"].sum(dtype=_np.uint64))
        if total != n.get("aux_ctrl_pos", 0):
            raise _data_error(
                "%s: aux_ctrl_counts add up to %d but aux_ctrl_pos holds %d positions"
                % (where, total, n.get("aux_ctrl_pos", 0))
            )


def write(path, header, planes, cameras=None):
    """Writes a new file, or replaces a writable existing one whole.

    ``header``: a dict with any of version, point, normal, num_planes,
    dist_bw_planes (missing ones are 0). ``planes``: an iterable of dicts or
    objects (e.g. :class:`Subset`) with plane_id, subset_id and any of the
    arrays (``results`` is accepted for ``res_points``); empty or missing
    arrays are not written, aux_ctrl_offsets are derived from
    aux_ctrl_counts. ``cameras``: (c, 3).

    Checked before anything is written:

    - types and shapes (TypeError, ValueError), unknown keys (ValueError);
    - plane_id and subset_id are integers from 0 to 4294967295 (ValueError);
    - at least one plane, and every plane holds some data (ValueError: a file
      without records cannot be read);
    - per plane, as :class:`DataError` (a ValueError) naming the plane, its
      ids and the field: normals, res_points and distances have one entry per
      point (without points: one distance per result point); segments are
      running point counts that never decrease and end exactly at the number
      of points; aux_ctrl_counts add up to the number of aux_ctrl_pos; given
      aux_ctrl_offsets are the running sum of aux_ctrl_counts;
    - the output: not a directory (:class:`IsADirectoryError`), not a FIFO or
      other special file (:class:`NotARegularFileError`), not read-only
      (:class:`PermissionError`); a missing folder raises
      :class:`FileNotFoundError`.

    The file is written to a temporary file beside ``path``, checked as
    ``luafxs validate`` checks it, flushed to disk and renamed over ``path``;
    on any failure (:class:`Error`, e.g. a full disk, or KeyboardInterrupt)
    ``path`` is left as it was and no temporary stays. A symlink at ``path``
    keeps pointing at the rewritten file. The arrays are copied into the
    library's buffers. Once the file passes 1 MiB its room is reserved on the
    volume ahead of the writes (where the system can), and what is not written
    goes back when the file is closed.
    """
    unknown = set(header) - _HEADER_KEYS
    if unknown:
        raise ValueError("header: unknown keys %s" % ", ".join(sorted(unknown)))
    if isinstance(planes, (dict, str, bytes)):
        raise TypeError("write: planes must be a list of planes (dicts or objects)")
    planes = [_plane_dict(p, i) for i, p in enumerate(planes)]
    if not planes:
        raise ValueError("write: no planes; a file without records cannot be read")
    if cameras is not None:
        cameras = _np.ascontiguousarray(cameras, dtype=_np.float64)
        if cameras.size == 0:
            cameras = cameras.reshape(0, 3)
    _luanaf.write(_path(path), dict(header), planes, cameras)


def remove_fields(path, mask_or_names):
    """Removes field groups from every record by rewriting the file.

    ``mask_or_names``: a mask or field-group names (the tool's: "points",
    "segments", "normals", "aux", "results", "distances", "all"; "res_points"
    too). As in the library, result points and distances always go too when
    anything is removed. Returns True when the file was rewritten, False
    when no record held any of the groups (the file is then untouched).

    Refused before anything is written, the file left as it is:

    - a missing file (:class:`FileNotFoundError`), a directory
      (:class:`IsADirectoryError`), a FIFO or other special file
      (:class:`NotARegularFileError`), a read-only file
      (:class:`PermissionError`), a file that cannot be read or that another
    process is reading or changing (:class:`Error`);
    - a removal that would leave a damaged file (:class:`DataError`, naming
      the plane and subset and the groups that may be removed): points
      without the segments that count them, or a record left without any
      field group (it would vanish; "all" would leave no record at all).

    The new file is written to a temporary file beside the old one, checked
    as ``luafxs validate`` checks it, flushed to disk and renamed over it; on
    any failure (a full disk, KeyboardInterrupt) the old file stays as it
    was and no temporary stays. Through a symlink the target is rewritten and
    the link kept. The header's version is kept.
    """
    return _luanaf.remove_fields(_path(path), _mask(mask_or_names))


class UnifySummary(dict):
    """What :func:`unify` did, as counted by the library while it ran, as a
    dict with attribute access: ``planes_written`` (plane subsets in the
    output), ``planes_blended``, ``positions_skipped`` (positions whose blend
    failed and that were left out), ``failures`` (the texts ``luafxs unify``
    prints: each position left out with its reason, each error report with its
    code) and ``warnings`` (what was asked for and could not happen, as
    ``luafxs unify`` words them)."""

    __slots__ = ()

    def __getattr__(self, name):
        try:
            return self[name]
        except KeyError:
            raise AttributeError(name) from None


def unify(inputs, output, output_ids=None, blend=False, xs_id=0):
    """Unifies the data sets of one cross-section into one output file.

    Calls the library's ``luAfxsUnifyFiles``, as ``luafxs unify`` does: the
    same inputs give the same bytes and the same refusals from both.

    ``inputs``: a list of paths of the data-set files (a single string is a
    TypeError). ``output``: the file to write. It carries the first input's
    header as the file holds it, its version included (an input without a
    version line gives version 0), and the first input's cameras.
    ``output_ids``: one subset id per input under which its planes are
    written, or KEEP_SUBSET_IDS (0xFFFFFFFF) to keep each plane's own. By
    default, when every input holds exactly one subset, its planes go out
    under that subset's id (and line up by plane number); otherwise every
    input keeps its subset ids. ``blend``: blend the overlapping contours of
    the first two subsets of each plane. ``xs_id``: the cross-section id in
    the library's registry, cleared again afterwards. Ids are u32 (ValueError
    outside 0 to 4294967295).

    Returns a :class:`UnifySummary` (planes_written, planes_blended,
    positions_skipped, failures, warnings), as ``luafxs unify`` prints it.

    Refused before anything is written: an input that is missing, not a
    regular file or has any problem ``luafxs validate`` would print
    (:class:`Error`; the input is never changed or deleted); an output that
    is one of the inputs (:class:`SameFileError`, a ValueError; also through
    symlinks and hard links), a directory, a special file or read-only (as
    for :func:`write`); ValueError for ids that do not fit, a plane number at
    or beyond the number of slots under a real id, and, with blending, an
    input without a real id or a plane number below the slots that no input
    has (the blender cannot skip it). The output is written to a temporary
    file beside it and put in place only when the library ran to its end, no
    error report arrived and the file checks as ``luafxs validate`` checks
    it; a failure raises :class:`Error` and leaves the output's old file (or
    no file) and no temporary. Sets the library's process-wide blending
    switch and current cross-section id. A position whose blend fails is
    left out, as the library does, and counted in the summary; the output is
    still written.
    """
    inputs = _paths(inputs, "unify: inputs")
    output = _path(output)
    if output_ids is not None:
        if isinstance(output_ids, (str, bytes)):
            raise TypeError("unify: output_ids must be a list of ids")
        output_ids = [_u32(i, "unify: output id") for i in output_ids]
    summary = _luanaf.unify(inputs, output, output_ids, bool(blend), _u32(xs_id, "unify: xs_id"))
    return UnifySummary(summary)


def slice(vertices, faces, planes=None, spacing=None, normal=(0.0, 0.0, 1.0), origin=None):  # noqa: A001
    """Cut a triangle mesh with a family of parallel planes.

    ``vertices``: float64 (n, 3); ``faces``: integer (m, 3) vertex indices,
    wound counter-clockwise seen from outside. Give exactly one of
    ``planes`` (that many planes over the mesh's extent along ``normal``,
    plane 0 half a spacing above the lowest vertex, or at ``origin``) and
    ``spacing`` (planes that far apart from ``origin`` or from half a
    spacing above the lowest vertex, up to the highest vertex).

    Returns a dict: ``family`` (a header-like dict: point, normal,
    num_planes, dist_bw_planes), ``planes`` (one dict per plane the mesh
    meets: plane_id, points, normals, segments, faces, closed) and
    ``report`` (counts of merged vertices, skipped faces, non-manifold
    edges, open, closed and dropped polylines). Each polyline is one
    segment, counter-clockwise about the normal; a closed one repeats its
    first point last; normals lie in the plane and point out of the solid;
    ``faces`` names the face each point was cut from. The rules for
    vertices, edges and faces lying in a plane, duplicate vertices and
    non-manifold edges are those of ``luafxs slice`` (docs/luafxs.md).
    ValueError for a bad family, an out-of-range face index or wrong shapes.
    """
    return _luanaf._slice(vertices, faces, 0 if planes is None else _u32(planes, "slice: planes"),
                          0.0 if spacing is None else float(spacing), tuple(normal),
                          None if origin is None else tuple(origin))


def compare(measured_points, nominal_points, measured_normals=None, nominal_normals=None,
            measured_segments=None, nominal_segments=None):
    """The deviation of one measured contour from a nominal one.

    For each measured point: ``res_points`` (its nearest point on the
    nominal polylines, on the pieces between points, not only at them) and
    ``distances`` (signed along the measured point's normal, positive
    outside; without measured normals along the nominal normal there;
    without either, unsigned). Segments are running point counts; without
    them the points are one polyline. Returns a dict with those two arrays
    and the summary: count, min, max, mean, rms, worst_index.
    """
    return _luanaf._compare(measured_points, measured_normals, measured_segments, nominal_points,
                            nominal_normals, nominal_segments)

// The library's own classes under their own names (LuAfxsCreateLink,
// LuAfxsUserDataSet, ...), for code that follows the C++ API step by step.
//
// Differences from C++, all for safety from Python:
// - Operations that return false on failure raise luanaf.Error instead
//   (create, flush, load, remove, copy); verify() answers a question and
//   returns its bool.
// - LuAfxsUserDataSet.load and .remove check the file first and raise
//   instead of letting the library delete a file it cannot verify.
// - A further load of a loaded LuAfxsUserDataSet loads each record and
//   raises at the first failure without emptying the set (the library would
//   delete the records, which Python may still hold).
// - Vectors cross as numpy copies; records (header, plane) are copies.
// - LuAfxsCreateLink refuses a path that is a directory, a special file or
//   read-only; LuAfxsUserDataSet.remove refuses a read-only file and a
//   removal that leaves a damaged file; LuAfxsCreateData.flush and
//   LuAfxsUserData.flush refuse data whose lengths the format relates
//   wrongly (luanaf.DataError). Otherwise
//   these classes write in place as in C++ (luanaf.write, remove_fields and
//   unify write beside the file and rename).

#include <array>
#include <cerrno>

#include "bindings.h"

namespace luanafpy {

namespace {

py::tuple triple(const double (&v)[3]) { return py::make_tuple(v[0], v[1], v[2]); }

void setTriple(double (&v)[3], const std::vector<double>& values, const char* name) {
  if (values.size() != 3) throw py::value_error(std::string(name) + ": expected 3 values");
  for (int i = 0; i < 3; ++i) v[i] = values[static_cast<size_t>(i)];
}

template <typename T>
void defFlatField(py::class_<LuAfxsPlane>& c, const char* name,
                  std::vector<T> LuAfxsPlane::*member) {
  c.def_property(
      name, [member](const LuAfxsPlane& p) { return copyFlat(p.*member); },
      [member, name](LuAfxsPlane& p, py::handle v) { p.*member = flatVector<T>(v, name); },
      "A copy of the vector; assigning replaces it.");
}

void defVec3Field(py::class_<LuAfxsPlane>& c, const char* name,
                  std::vector<LuVec3> LuAfxsPlane::*member) {
  c.def_property(
      name, [member](const LuAfxsPlane& p) { return copyVec3(p.*member); },
      [member, name](LuAfxsPlane& p, py::handle v) { p.*member = vec3Vector(v, name); },
      "An (n, 3) float64 copy of the vector; assigning replaces it.");
}

std::string planeWhat(const char* op, const LuAfxsPlane& p) {
  return std::string(op) + " of plane " + std::to_string(p.planeId) + " subset " +
         std::to_string(p.subsetId) + " failed";
}

// The user link's path, for error messages.
const std::wstring& linkPath(const LuAfxsUserDataSet& set) { return set.link()->fileName(); }

// Raises DataError when the attached results are not one per point of the
// record (or, without points, not as many distances as result points).
void checkResultsAgainstPoints(LuAfxsUserData& d) {
  Capture cap;
  if (d.fileState() == 0 && !d.load(0)) return;  // the flush fails and says why
  uint32_t mask = d.state() & (LU_AFXS_MASK_RESPOINTS | LU_AFXS_MASK_DISTANCES);
  if (d.fileState() & LU_AFXS_MASK_POINTS) {
    if (!d.load(LU_AFXS_MASK_POINTS)) return;
    mask |= LU_AFXS_MASK_POINTS;
  }
  const std::string problem = planeLengthProblem(d.getPlaneData(), mask);
  if (!problem.empty()) raiseError(problem + "; nothing was written", L"", {}, EINVAL, "data");
}

// Raises DataError when removing `mask` would leave a damaged file.
void refuseDamagingRemoval(LuAfxsUserDataSet& s, uint32_t mask) {
  Capture cap;
  if (!s.load((kCopiedMask & ~mask) | LU_AFXS_MASK_SEGMENTS)) {
    raiseError("damaged plane-subset records", linkPath(s), cap.reports);
  }
  uint32_t present = 0;
  for (const LuAfxsUserData* d : s) present |= d->fileState();
  if ((present & mask) == 0) return;
  const std::string damage = removalDamage(s, mask);
  if (!damage.empty()) {
    raiseError("removing " + groupNames(mask & present) + " would leave a damaged file: " + damage +
                   "; groups that may be removed on their own: " + removableGroups(s, present),
               linkPath(s), {}, EINVAL, "data");
  }
}

}  // namespace

void bindLibraryClasses(py::module_& m) {
  // ---- Records ----
  py::class_<LuAfxsHeader>(m, "LuAfxsHeader", "The text header of a file.")
      .def(py::init<>())
      .def(py::init([](const py::dict& d) { return headerFromDict(d); }), py::arg("values"),
           "From a dict as luanaf.File.header gives it.")
      .def_readwrite("version", &LuAfxsHeader::version)
      .def_property(
          "point", [](const LuAfxsHeader& h) { return triple(h.point); },
          [](LuAfxsHeader& h, const std::vector<double>& v) { setTriple(h.point, v, "point"); })
      .def_property(
          "normal", [](const LuAfxsHeader& h) { return triple(h.normal); },
          [](LuAfxsHeader& h, const std::vector<double>& v) { setTriple(h.normal, v, "normal"); })
      .def_readwrite("numPlanes", &LuAfxsHeader::numPlanes)
      .def_readwrite("distBwPlanes", &LuAfxsHeader::distBwPlanes)
      .def("as_dict", &headerToDict);

  py::class_<LuAfxsPlane> plane(m, "LuAfxsPlane", "The data of one plane in one subset.");
  plane.def(py::init<>())
      .def_readwrite("planeId", &LuAfxsPlane::planeId)
      .def_readwrite("subsetId", &LuAfxsPlane::subsetId);
  defVec3Field(plane, "points", &LuAfxsPlane::points);
  defVec3Field(plane, "normals", &LuAfxsPlane::normals);
  defFlatField(plane, "segments", &LuAfxsPlane::segments);
  defFlatField(plane, "auxCtrlFirst", &LuAfxsPlane::auxCtrlFirst);
  defFlatField(plane, "auxCtrlOffsets", &LuAfxsPlane::auxCtrlOffsets);
  defFlatField(plane, "auxCtrlCounts", &LuAfxsPlane::auxCtrlCounts);
  defFlatField(plane, "auxCtrlPos", &LuAfxsPlane::auxCtrlPos);
  defVec3Field(plane, "resPoints", &LuAfxsPlane::resPoints);
  defFlatField(plane, "distances", &LuAfxsPlane::distances);

  // ---- Writer ----
  py::class_<LuAfxsCreateLink>(m, "LuAfxsCreateLink",
                               "Creates one file. The file survives the link only when release() "
                               "was called and no failure occurred.")
      .def(py::init([](const std::wstring& path) {
             // The link deletes whatever is at its path when it goes without a
             // release, and create() truncates it: a directory, a special file
             // or a read-only file is refused before the link exists.
             LuAfxsOutputProblem problem;
             if (!luAfxsCheckOutput(path, {}, problem) && problem.errnum != ENOENT) {
               raiseOutputProblem(path, problem);
             }
             return std::make_unique<LuAfxsCreateLink>(path.c_str());
           }),
           py::arg("path"),
           "Refuses (raises) a path that is a directory, a special file or read-only.")
      .def("setHeader", &LuAfxsCreateLink::setHeader)
      .def(
          "getHeader", [](const LuAfxsCreateLink& l) { return l.getHeader(); }, "A copy.")
      .def("setCameras", [](LuAfxsCreateLink& l,
                            py::handle cameras) { l.setCameras(camerasFromObject(cameras)); })
      .def("getCameras", [](const LuAfxsCreateLink& l) { return copyVec3(l.getCameras().cameras); })
      .def(
          "create",
          [](LuAfxsCreateLink& l, bool keepOpen) {
            Capture cap;
            if (!l.create(keepOpen))
              raiseError("cannot create the file", l.filePath(), cap.reports);
          },
          py::arg("keepOpen") = true, "Raises luanaf.Error on failure.")
      .def(
          "createCamerasRecord",
          [](LuAfxsCreateLink& l) {
            Capture cap;
            const bool ok = l.createCamerasRecord();
            if (!ok && !cap.reports.empty()) {
              raiseError("cannot write the cameras record", l.filePath(), cap.reports);
            }
            return ok;
          },
          "False (without a report) when the table is empty.")
      .def(
          "closeFile",
          [](LuAfxsCreateLink& l, bool close) {
            Capture cap;
            l.closeFile(close);
            if (!cap.reports.empty())
              raiseError("cannot close the file", l.filePath(), cap.reports);
          },
          py::arg("close") = true)
      .def("release", &LuAfxsCreateLink::release)
      .def("reserve", &LuAfxsCreateLink::reserve, py::arg("bytes"),
           "Reserves room for this many more bytes of records (a hint that makes the writes "
           "cheaper; the file's size and contents never change, and the room not written goes "
           "back at the close). A link created with keepOpen reserves ahead on its own once "
           "its file passes 1 MiB; this reserves a known total in one call. False where "
           "nothing was reserved.")
      .def("getState", &LuAfxsCreateLink::getState)
      .def("setState", &LuAfxsCreateLink::setState)
      .def("isOK", [](const LuAfxsCreateLink& l) { return l.isOK(); })
      .def("filePath", &LuAfxsCreateLink::filePath);

  py::class_<LuAfxsCreateData>(m, "LuAfxsCreateData",
                               "The buffer of one plane subset; keeps its link alive.")
      .def(py::init<LuAfxsCreateLink&, uint32_t, uint32_t>(), py::arg("link"), py::arg("planeId"),
           py::arg("subsetId"), py::keep_alive<1, 2>())
      .def("setPoints",
           [](LuAfxsCreateData& d, py::handle a) {
             Vec3Array v = asVec3(a, "points");
             d.setPoints(rows(v), static_cast<size_t>(v.shape(0)));
           })
      .def("setNormals",
           [](LuAfxsCreateData& d, py::handle a) {
             Vec3Array v = asVec3(a, "normals");
             d.setNormals(rows(v), static_cast<size_t>(v.shape(0)));
           })
      .def("setSegments",
           [](LuAfxsCreateData& d, py::handle a) {
             FlatArray<int32_t> v = asFlat<int32_t>(a, "segments");
             d.setSegments(v.data(), static_cast<size_t>(v.shape(0)));
           })
      .def(
          "setAuxCtrlPos",
          [](LuAfxsCreateData& d, py::handle positions, py::handle counts) {
            FlatArray<uint32_t> p = asFlat<uint32_t>(positions, "positions");
            FlatArray<uint32_t> c = asFlat<uint32_t>(counts, "counts");
            d.setAuxCtrlPos(p.data(), static_cast<size_t>(p.shape(0)), c.data(),
                            static_cast<size_t>(c.shape(0)));
          },
          py::arg("positions"), py::arg("counts"))
      .def("setResPoints",
           [](LuAfxsCreateData& d, py::handle a) {
             Vec3Array v = asVec3(a, "resPoints");
             d.setResPoints(rows(v), static_cast<size_t>(v.shape(0)));
           })
      .def("setDistances",
           [](LuAfxsCreateData& d, py::handle a) {
             FlatArray<double> v = asFlat<double>(a, "distances");
             d.setDistances(v.data(), static_cast<size_t>(v.shape(0)));
           })
      .def(
          "flush",
          [](LuAfxsCreateData& d, const LuAfxsCreateLink& link) {
            const std::string problem = planeLengthProblem(d.plane(), d.state());
            if (!problem.empty()) {
              raiseError(problem + "; nothing was written", link.filePath(), {}, EINVAL, "data");
            }
            Capture cap;
            if (!d.flush())
              raiseError(planeWhat("writing", d.plane()), link.filePath(), cap.reports);
          },
          py::arg("link"),
          "Raises luanaf.Error on failure (also when nothing was set), luanaf.DataError for data "
          "that would make a damaged file (lengths, segments, aux totals).")
      .def("Unify", [](LuAfxsCreateData& d, const LuAfxsPlane& p) { return d.Unify(&p); })
      .def("state", &LuAfxsCreateData::state)
      .def(
          "plane", [](const LuAfxsCreateData& d) { return d.plane(); }, "A copy.");

  // ---- Reader ----
  py::class_<LuAfxsUserLink>(m, "LuAfxsUserLink", "A handle on one existing file.")
      .def(py::init([](const std::wstring& path) {
             return std::make_unique<LuAfxsUserLink>(path.c_str());
           }),
           py::arg("path"))
      .def(
          "verify", [](LuAfxsUserLink& l, bool keepOpen) { return l.verify(keepOpen); },
          py::arg("keepOpen") = false,
          "True when the file exists and could be read; never deletes. Reports of a failure go to "
          "the log.")
      .def("fileName", &LuAfxsUserLink::fileName)
      .def("fileExists", &LuAfxsUserLink::fileExists)
      .def("fileWritable", &LuAfxsUserLink::fileWritable)
      .def("updateSupported", &LuAfxsUserLink::updateSupported)
      .def(
          "getHeader", [](const LuAfxsUserLink& l) { return l.getHeader(); }, "A copy.")
      .def("getCameras", [](LuAfxsUserLink& l) { return copyVec3(l.getCameras().cameras); })
      .def("remove", &LuAfxsUserLink::remove, "Closes the file and DELETES it.");

  // Owned by their data set: Python never deletes them.
  py::class_<LuAfxsUserData, std::unique_ptr<LuAfxsUserData, py::nodelete>>(
      m, "LuAfxsUserData", "One plane-subset record of a loaded data set; keeps the set alive.")
      .def(
          "load",
          [](LuAfxsUserData& d, uint32_t mask) {
            Capture cap;
            if (!d.load(mask)) raiseError(planeWhat("loading", d.getPlaneData()), L"", cap.reports);
          },
          py::arg("mask"))
      .def("setDistances",
           [](LuAfxsUserData& d, py::handle a) {
             FlatArray<double> v = asFlat<double>(a, "distances");
             d.setDistances(v.data(), static_cast<size_t>(v.shape(0)));
           })
      .def("setResPoints",
           [](LuAfxsUserData& d, py::handle a) {
             Vec3Array v = asVec3(a, "resPoints");
             d.setResPoints(rows(v), static_cast<size_t>(v.shape(0)));
           })
      .def(
          "flush",
          [](LuAfxsUserData& d) {
            checkResultsAgainstPoints(d);
            Capture cap;
            if (!d.flush()) {
              raiseError(planeWhat("writing results", d.getPlaneData()), L"", cap.reports);
            }
          },
          "Raises luanaf.Error when the record has results already, nothing is attached, or a "
          "write failed; luanaf.DataError when the results are not one per point.")
      .def(
          "copy",
          [](LuAfxsUserData& d, LuAfxsCreateLink& link, uint32_t mask) {
            Capture cap;
            if (!d.copy(link, mask)) {
              raiseError(planeWhat("copying", d.getPlaneData()), link.filePath(), cap.reports);
            }
          },
          py::arg("link"), py::arg("mask"))
      .def("hasUnflushedResults", &LuAfxsUserData::hasUnflushedResults)
      .def("state", &LuAfxsUserData::state)
      .def("fileState", &LuAfxsUserData::fileState)
      .def(
          "getPlaneData", [](const LuAfxsUserData& d) { return d.getPlaneData(); }, "A copy.");

  py::class_<LuAfxsUserDataSet>(m, "LuAfxsUserDataSet",
                                "Every plane-subset record of one file; keeps its link alive.")
      .def(py::init<LuAfxsUserLink&>(), py::arg("link"), py::keep_alive<1, 2>())
      .def(
          "load",
          [](LuAfxsUserDataSet& s, uint32_t mask) {
            if (s.empty()) {
              verifyOrRaise(*s.link(), linkPath(s));
              Capture cap;
              if (!s.load(mask))
                raiseError("damaged plane-subset records", linkPath(s), cap.reports);
              return;
            }
            for (LuAfxsUserData* d : s) {
              Capture cap;
              if (!d->load(mask)) {
                raiseError(planeWhat("loading", d->getPlaneData()), linkPath(s), cap.reports);
              }
            }
          },
          py::arg("mask"), "Raises luanaf.Error (and never deletes the file) on failure.")
      .def(
          "remove",
          [](LuAfxsUserDataSet& s, uint32_t mask) {
            if (s.empty()) verifyOrRaise(*s.link(), linkPath(s));
            // The rewrite would move its "<path>.tmp" over a read-only file.
            if (!s.link()->fileWritable()) {
              raiseError("the file is read-only", linkPath(s), {}, EACCES);
            }
            refuseDamagingRemoval(s, mask);
            Capture cap;
            if (!s.remove(mask)) raiseError("cannot rewrite the file", linkPath(s), cap.reports);
          },
          py::arg("mask"),
          "Removes field groups by rewriting the file; result points and distances always go "
          "too. The records still describe the old file afterwards.")
      .def(
          "find",
          [](LuAfxsUserDataSet& s, uint32_t planeId, uint32_t subsetId) -> LuAfxsUserData* {
            auto it = s.find(planeId, subsetId);
            return it == s.end() ? nullptr : *it;
          },
          py::return_value_policy::reference_internal)
      .def("__len__", &LuAfxsUserDataSet::size)
      .def(
          "__iter__",
          [](LuAfxsUserDataSet& s) {
            return py::make_iterator<py::return_value_policy::reference_internal>(s.begin(),
                                                                                  s.end());
          },
          py::keep_alive<0, 1>())
      .def(
          "flushResults",
          [](LuAfxsUserDataSet& s) {
            for (LuAfxsUserData* d : s)
              if (d->hasUnflushedResults()) checkResultsAgainstPoints(*d);
            Capture cap;
            if (!s.flushResults()) raiseError("writing results", linkPath(s), cap.reports);
          },
          "Appends the attached results of every record, all or nothing; raises luanaf.Error "
          "when a write failed (the file is then as it was) and luanaf.DataError when results "
          "are not one per point.")
      .def("closefile", &LuAfxsUserDataSet::closefile)
      .def("link", &LuAfxsUserDataSet::link, py::return_value_policy::reference_internal);

  m.def(
      "set_xyz_dump_directory",
      [](std::optional<std::wstring> dir) {
        LuAfxsUserDataSet::SetXYZDumpDirectory(dir ? dir->c_str() : nullptr);
      },
      py::arg("directory"),
      "Where blending writes its diagnostic point files; None restores the default "
      "(LUANAF_XYZ_DIR, else /tmp/XYZ/). The directory is never created.");

  m.def("array_cache_enabled", &luAfxsArrayCacheEnabled,
        "Whether destroyed data sets' arrays are kept for later loads (off unless turned on).");
  m.def("set_array_cache_enabled", &luAfxsSetArrayCacheEnabled, py::arg("on"),
        "Turns the array cache on (repeated loads of large files reuse memory) or off (frees "
        "everything it holds; the library then keeps nothing of a destroyed data set).");
  m.def("array_cache_limit", &luAfxsArrayCacheLimit,
        "The most bytes of loaded arrays the library keeps for later loads (256 MiB unless set).");
  m.def("set_array_cache_limit", &luAfxsSetArrayCacheLimit, py::arg("nbytes"),
        "Sets the array cache's limit; arrays past a lowered limit are freed at once, and 0 "
        "turns the cache off.");
  m.def("array_cache_bytes", &luAfxsArrayCacheBytes, "The bytes the array cache holds now.");
  m.def("clear_array_cache", &luAfxsClearArrayCache, "Frees everything the array cache holds.");
}

}  // namespace luanafpy

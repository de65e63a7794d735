// The Pythonic surface: the file object with its plane subsets, write,
// remove_fields and unify, each a short sequence of public library calls.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>

#include "bindings.h"

namespace luanafpy {

namespace {

// ---- Field names ------------------------------------------------------------

enum class Field { Points, Normals, Segments, AuxPos, AuxOffsets, AuxCounts, ResPoints, Distances };

struct FieldInfo {
  const char* name;
  Field field;
  uint32_t mask;
};

constexpr FieldInfo kFields[] = {
    {"points", Field::Points, LU_AFXS_MASK_POINTS},
    {"normals", Field::Normals, LU_AFXS_MASK_NORMALS},
    {"segments", Field::Segments, LU_AFXS_MASK_SEGMENTS},
    {"aux_ctrl_pos", Field::AuxPos, LU_AFXS_MASK_AUX},
    {"aux_ctrl_offsets", Field::AuxOffsets, LU_AFXS_MASK_AUX},
    {"aux_ctrl_counts", Field::AuxCounts, LU_AFXS_MASK_AUX},
    {"res_points", Field::ResPoints, LU_AFXS_MASK_RESPOINTS},
    {"distances", Field::Distances, LU_AFXS_MASK_DISTANCES},
};

const FieldInfo& fieldInfo(const std::string& name) {
  for (const FieldInfo& f : kFields) {
    if (name == f.name) return f;
  }
  throw py::key_error("unknown field: " + name);
}

// Fields handed out as views: once loaded they are never loaded again, so
// their vectors keep their storage for as long as the data set lives.
constexpr uint32_t kViewMask =
    LU_AFXS_MASK_POINTS | LU_AFXS_MASK_NORMALS | LU_AFXS_MASK_SEGMENTS | LU_AFXS_MASK_AUX;
// ---- The file object --------------------------------------------------------

class PyFile {
public:
  PyFile(const std::wstring& path, uint32_t mask) : m_path(path) {
    m_link = std::make_unique<LuAfxsUserLink>(path.c_str());
    verifyOrRaise(*m_link, path);
    m_set = std::make_unique<LuAfxsUserDataSet>(*m_link);
    Capture cap;
    if (!m_set->load(mask)) raiseError("damaged plane-subset records", path, cap.reports);
    for (LuAfxsUserData* d : *m_set) {
      m_records.push_back(d);
      m_pinned.push_back(d->state() & kViewMask);
    }
    m_flushed.assign(m_records.size(), false);
  }
  ~PyFile() {
    // The set's destructor closes the file through the link: set first.
    m_set.reset();
    m_link.reset();
  }

  size_t size() const { return m_records.size(); }
  const std::wstring& path() const { return m_path; }
  bool closed() const { return m_closed; }
  void close() {
    if (m_closed) return;
    m_set->closefile();
    m_closed = true;
  }

  py::dict header() const { return headerToDict(m_link->getHeader()); }
  bool updateSupported() const { return m_link->updateSupported(); }
  bool writable() const { return m_link->fileWritable(); }

  py::array cameras() {
    requireOpen();
    return copyVec3(m_link->getCameras().cameras);
  }

  // Python-style index (negative counts from the end) to a position.
  size_t position(py::ssize_t index) const {
    if (index < 0) index += static_cast<py::ssize_t>(m_records.size());
    if (index < 0 || static_cast<size_t>(index) >= m_records.size()) {
      throw py::index_error("plane subset index out of range");
    }
    return static_cast<size_t>(index);
  }
  LuAfxsUserData& record(py::ssize_t index) const { return *m_records[position(index)]; }

  // Loads a field group unless it is in memory for good.
  void ensureField(py::ssize_t index, uint32_t mask, const std::string& name) {
    LuAfxsUserData& d = record(index);
    uint32_t& pinned = m_pinned[position(index)];
    const bool view = (mask & kViewMask) != 0;
    const bool present = view ? (pinned & mask) != 0 : (d.state() & mask) != 0;
    if (present) return;
    requireOpen();
    Capture cap;
    if (!d.load(mask)) {
      raiseError("cannot load field '" + name + "' of plane " +
                     std::to_string(d.getPlaneData().planeId) + " subset " +
                     std::to_string(d.getPlaneData().subsetId),
                 m_path, cap.reports);
    }
    if (view) pinned |= mask;
  }

  py::array field(py::object self, py::ssize_t index, const std::string& name) {
    const FieldInfo& info = fieldInfo(name);
    ensureField(index, info.mask, name);
    const LuAfxsPlane& p = record(index).getPlaneData();
    switch (info.field) {
      case Field::Points:
        return viewVec3(p.points, self);
      case Field::Normals:
        return viewVec3(p.normals, self);
      case Field::Segments:
        return viewFlat(p.segments, self);
      case Field::AuxPos:
        return viewFlat(p.auxCtrlPos, self);
      case Field::AuxOffsets:
        return viewFlat(p.auxCtrlOffsets, self);
      case Field::AuxCounts:
        return viewFlat(p.auxCtrlCounts, self);
      // Copies: setResPoints and setDistances replace these vectors.
      case Field::ResPoints:
        return copyVec3(p.resPoints);
      case Field::Distances:
        return copyFlat(p.distances);
    }
    throw py::key_error(name);
  }

  void setResults(py::ssize_t index, py::object resPoints, py::object distances) {
    LuAfxsUserData& d = record(index);
    if (resPoints.is_none() && distances.is_none()) {
      throw py::value_error("set_results: give res_points, distances or both");
    }
    std::optional<Vec3Array> res;
    std::optional<FlatArray<double>> dist;
    if (!resPoints.is_none()) {
      res = asVec3(resPoints, "res_points");
      if (res->shape(0) == 0) throw py::value_error("res_points: empty");
    }
    if (!distances.is_none()) {
      dist = asFlat<double>(distances, "distances");
      if (dist->shape(0) == 0) throw py::value_error("distances: empty");
    }
    checkResultLengths(index, res ? static_cast<size_t>(res->shape(0)) : 0,
                       dist ? static_cast<size_t>(dist->shape(0)) : 0);
    if (res) d.setResPoints(rows(*res), static_cast<size_t>(res->shape(0)));
    if (dist) d.setDistances(dist->data(), static_cast<size_t>(dist->shape(0)));
  }

  void flush(py::ssize_t index) {
    LuAfxsUserData& d = record(index);
    requireOpen();
    // The library's flush would open a read-only file for update when run by
    // root; the owner-write bit decides here, as it does for the writer.
    if (!m_link->fileWritable()) raiseError("the file is read-only", m_path, {}, EACCES);
    Capture cap;
    if (d.flush()) {
      m_flushed[position(index)] = true;
      return;
    }
    std::string what = "cannot write results of plane " + std::to_string(d.getPlaneData().planeId) +
                       " subset " + std::to_string(d.getPlaneData().subsetId);
    if (cap.reports.empty()) {
      // No report: the library refused before writing. The record's results
      // link is not public; an earlier flush or result fields in the file
      // tell the likely reason.
      if (m_flushed[position(index)] ||
          (d.fileState() & (LU_AFXS_MASK_RESPOINTS | LU_AFXS_MASK_DISTANCES))) {
        what += ": the record already has results";
      } else if ((d.state() & (LU_AFXS_MASK_RESPOINTS | LU_AFXS_MASK_DISTANCES)) == 0) {
        what += ": no results attached (call set_results first)";
      }
    }
    raiseError(what, m_path, cap.reports);
  }

  // Every record's attached results at once, all or nothing.
  void flushResults() {
    requireOpen();
    if (!m_link->fileWritable()) raiseError("the file is read-only", m_path, {}, EACCES);
    std::vector<bool> pending(m_records.size());
    for (size_t i = 0; i < m_records.size(); ++i) pending[i] = m_records[i]->hasUnflushedResults();
    Capture cap;
    const bool flushed = m_set->flushResults();
    size_t written = 0;
    for (size_t i = 0; i < m_records.size(); ++i) {
      if (!pending[i] || m_records[i]->hasUnflushedResults()) continue;
      m_flushed[i] = true;
      ++written;
    }
    if (flushed) return;
    if (written == 0)
      raiseError("cannot write the results; none of them was written", m_path, cap.reports);
    raiseError("cannot write the results; " + std::to_string(written) +
                   " records hold them now (the file was changed meanwhile, or could not be put "
                   "back)",
               m_path, cap.reports);
  }

  py::ssize_t find(uint32_t planeId, uint32_t subsetId) const {
    for (size_t i = 0; i < m_records.size(); ++i) {
      const LuAfxsPlane& p = m_records[i]->getPlaneData();
      if (p.planeId == planeId && p.subsetId == subsetId) return static_cast<py::ssize_t>(i);
    }
    return -1;
  }

private:
  void requireOpen() const {
    if (m_closed) throw py::value_error("I/O operation on closed file");
  }

  // Result points and distances as the file relates them: one per point of
  // the record; without points, as many distances as result points. 0 means
  // "not given here"; results attached earlier take part.
  void checkResultLengths(py::ssize_t index, size_t res, size_t dist) {
    LuAfxsUserData& d = record(index);
    const LuAfxsPlane& p = d.getPlaneData();
    const std::string where =
        "plane " + std::to_string(p.planeId) + " subset " + std::to_string(p.subsetId) + ": ";
    if (d.fileState() == 0) ensureField(index, 0, "directory");  // reads the field directory
    if (d.fileState() & LU_AFXS_MASK_POINTS) {
      ensureField(index, LU_AFXS_MASK_POINTS, "points");
      const size_t n = p.points.size();
      for (auto [count, name] : {std::pair{res, "res_points"}, std::pair{dist, "distances"}}) {
        if (count != 0 && count != n) {
          raiseError(where + name + " has " + std::to_string(count) +
                         " entries but the record has " + std::to_string(n) + " points",
                     m_path, {}, EINVAL, "data");
        }
      }
      return;
    }
    const size_t r = res != 0 ? res : (d.state() & LU_AFXS_MASK_RESPOINTS ? p.resPoints.size() : 0);
    const size_t k =
        dist != 0 ? dist : (d.state() & LU_AFXS_MASK_DISTANCES ? p.distances.size() : 0);
    if (r != 0 && k != 0 && r != k) {
      raiseError(where + std::to_string(k) + " distances but " + std::to_string(r) +
                     " res_points (one distance per result point)",
                 m_path, {}, EINVAL, "data");
    }
  }

  std::wstring m_path;
  std::unique_ptr<LuAfxsUserLink> m_link;
  std::unique_ptr<LuAfxsUserDataSet> m_set;
  std::vector<LuAfxsUserData*> m_records;  // owned by m_set
  std::vector<uint32_t> m_pinned;          // per record: view fields loaded for good
  std::vector<bool> m_flushed;             // per record: results written by this object
  bool m_closed = false;
};

// ---- write ------------------------------------------------------------------

// The errno of a failed create: ENOENT when the output's folder is missing.
int errnoOf(const std::wstring& path) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const fs::path parent = fs::path(path).parent_path();
  if (!parent.empty() && !fs::is_directory(parent, ec)) return ENOENT;
  return 0;
}

struct PlaneInput {
  uint32_t planeId = 0;
  uint32_t subsetId = 0;
  std::optional<Vec3Array> points, normals, resPoints;
  std::optional<FlatArray<int32_t>> segments;
  std::optional<FlatArray<uint32_t>> auxPos, auxCounts;
  std::optional<FlatArray<double>> distances;
};

PlaneInput planeFromDict(const py::dict& d, size_t index) {
  PlaneInput p;
  const std::string where = "plane " + std::to_string(index) + ": ";
  if (!d.contains("plane_id") || !d.contains("subset_id")) {
    throw py::value_error(where + "plane_id and subset_id are required");
  }
  p.planeId = d["plane_id"].cast<uint32_t>();
  p.subsetId = d["subset_id"].cast<uint32_t>();
  auto has = [&](const char* key) { return d.contains(key) && !d[key].is_none(); };
  if (has("points")) p.points = asVec3(d["points"], "points");
  if (has("normals")) p.normals = asVec3(d["normals"], "normals");
  if (has("res_points")) p.resPoints = asVec3(d["res_points"], "res_points");
  if (has("segments")) p.segments = asFlat<int32_t>(d["segments"], "segments");
  if (has("aux_ctrl_pos")) p.auxPos = asFlat<uint32_t>(d["aux_ctrl_pos"], "aux_ctrl_pos");
  if (has("aux_ctrl_counts")) {
    p.auxCounts = asFlat<uint32_t>(d["aux_ctrl_counts"], "aux_ctrl_counts");
  }
  if (has("distances")) p.distances = asFlat<double>(d["distances"], "distances");
  const bool auxPos = p.auxPos && p.auxPos->shape(0) > 0;
  const bool auxCounts = p.auxCounts && p.auxCounts->shape(0) > 0;
  if (auxPos != auxCounts) {
    throw py::value_error(where + "aux_ctrl_pos and aux_ctrl_counts go together");
  }
  if (auxCounts) {
    uint64_t total = 0;
    for (py::ssize_t i = 0; i < p.auxCounts->shape(0); ++i) total += p.auxCounts->data()[i];
    if (total > static_cast<uint64_t>(p.auxPos->shape(0))) {
      throw py::value_error(where + "aux_ctrl_counts add up to more than aux_ctrl_pos holds");
    }
  }
  return p;
}

void writeFile(const std::wstring& path, const py::dict& header, const py::list& planes,
               py::object cameras) {
  // The arrays' shapes and lengths are checked by the package before this call.
  LuAfxsHeader h = headerFromDict(header);
  LuAfxsCamerasTable table = camerasFromObject(cameras);
  std::vector<PlaneInput> inputs;
  for (size_t i = 0; i < planes.size(); ++i) {
    inputs.push_back(planeFromDict(planes[i].cast<py::dict>(), i));
  }
  if (inputs.empty())
    throw py::value_error("write: no planes; a file without records cannot be read");

  OutputTarget out(path, {}, true);
  Capture cap;
  {
    LuAfxsCreateLink link(out.tempPath().c_str());
    link.setHeader(h);
    link.setCameras(table);
    if (!link.create(true)) raiseError("cannot create the file", path, cap.reports, errnoOf(path));
    for (size_t i = 0; i < inputs.size(); ++i) {
      checkInterrupt(cap);
      const PlaneInput& p = inputs[i];
      LuAfxsCreateData data(link, p.planeId, p.subsetId);
      auto count = [](const auto& a) { return static_cast<size_t>(a->shape(0)); };
      if (p.points) data.setPoints(rows(*p.points), count(p.points));
      if (p.normals) data.setNormals(rows(*p.normals), count(p.normals));
      if (p.segments) data.setSegments(p.segments->data(), count(p.segments));
      if (p.auxPos && p.auxCounts) {
        data.setAuxCtrlPos(p.auxPos->data(), count(p.auxPos), p.auxCounts->data(),
                           count(p.auxCounts));
      }
      if (p.resPoints) data.setResPoints(rows(*p.resPoints), count(p.resPoints));
      if (p.distances) data.setDistances(p.distances->data(), count(p.distances));
      if (data.state() == 0) {
        // Nothing to write: the temporary file goes with the link and the target.
        throw py::value_error("plane " + std::to_string(i) +
                              ": no data to write (every array empty)");
      }
      if (!data.flush()) {
        raiseError("cannot write plane " + std::to_string(p.planeId) + " subset " +
                       std::to_string(p.subsetId),
                   path, cap.reports);
      }
    }
    link.release();
    link.closeFile(true);
    if (!link.isOK() || !cap.reports.empty()) {
      raiseError("cannot finish the file", path, cap.reports);
    }
  }
  out.commit(cap);
}

// ---- remove_fields ----------------------------------------------------------

// Writes the records of `set` without the groups of `mask` into `out`'s
// temporary file.
void writeWithout(LuAfxsUserDataSet& set, LuAfxsUserLink& link, const LuAfxsHeader& header,
                  uint32_t mask, OutputTarget& out, Capture& cap) {
  LuAfxsCreateLink createLink(out.tempPath().c_str());
  createLink.setHeader(header);
  createLink.setCameras(link.getCameras());
  if (!createLink.create(true)) {
    raiseError("cannot create the rewritten file", out.requested(), cap.reports);
  }
  for (LuAfxsUserData* d : set) {
    checkInterrupt(cap);
    if (!d->copy(createLink, kCopiedMask & ~mask)) {
      raiseError("cannot copy plane " + std::to_string(d->getPlaneData().planeId) + " subset " +
                     std::to_string(d->getPlaneData().subsetId),
                 out.requested(), cap.reports);
    }
  }
  createLink.release();
  createLink.closeFile(true);
  if (!createLink.isOK() || !cap.reports.empty()) {
    raiseError("cannot finish the rewritten file", out.requested(), cap.reports);
  }
}

bool removeFields(const std::wstring& path, uint32_t mask) {
  if (mask == 0 || (mask & ~static_cast<uint32_t>(LU_AFXS_MASK_ALL)) != 0) {
    throw py::value_error("mask: expected a non-empty combination of the field bits 1 to 32");
  }
  // Through a symlink, the file it names is rewritten and the link kept.
  const std::wstring target = luAfxsResolveOutput(path);
  LuAfxsUserLink link(target.c_str());
  if (!LuFileExist(target.c_str())) raiseError("no such file", path, {}, ENOENT);
  OutputTarget out(path, {});  // refuses a directory, a special file, a read-only file
  LuAfxsInspection before = verifyOrRaise(link, target);
  LuAfxsUserDataSet set(link);
  Capture cap;
  // Segments are loaded in any case: removalDamage reads them.
  if (!set.load((kCopiedMask & ~mask) | LU_AFXS_MASK_SEGMENTS)) {
    raiseError("damaged plane-subset records", path, cap.reports);
  }
  uint32_t present = 0;
  for (const LuAfxsUserData* d : set) present |= d->fileState();
  if ((present & mask) == 0) return false;
  const std::string damage = removalDamage(set, mask);
  if (!damage.empty()) {
    raiseError("removing " + groupNames(mask & present) + " would leave a damaged file: " + damage +
                   "; groups that may be removed on their own: " + removableGroups(set, present) +
                   "; nothing was written",
               path, {}, EINVAL, "data");
  }
  // The version is kept (the reader's link does not hold it).
  writeWithout(set, link, before.header, mask, out, cap);
  set.closefile();
  out.commit(cap);
  return true;
}

// ---- unify ------------------------------------------------------------------

// What the library counted, with the texts the luafxs tool prints.
py::dict unifySummary(const LuAfxsUnifySummary& s) {
  py::list failures;
  for (const LuAfxsUnifyFailure& f : s.failures) failures.append(narrow(luAfxsUnifyFailureText(f)));
  for (const LuAfxsUnifySkip& k : s.skipped) failures.append(narrow(luAfxsUnifySkipText(k)));
  py::list warnings;
  for (const LuAfxsUnifyWarning& w : s.warnings) warnings.append(w.text);
  py::dict summary;
  summary["planes_written"] = s.planesWritten;
  summary["planes_blended"] = s.planesBlended;
  summary["positions_skipped"] = s.skipped.size();
  summary["failures"] = failures;
  summary["warnings"] = warnings;
  return summary;
}

// Raises what the refusal of an input means in Python.
[[noreturn]] void raiseInputRefusal(const LuAfxsUnifySummary& s) {
  const std::wstring& path = s.problemPath;
  if (s.errnum == ENOENT) raiseError("no such file", path, {}, ENOENT);
  if (s.errnum == EISDIR) raiseError("is a directory", path, {}, EISDIR);
  if (s.errnum == EINVAL) {
    raiseError("is not a regular file (a FIFO, device or socket)", path, {}, EINVAL, "not_regular");
  }
  std::string what = "not a readable cross-section file";
  for (const LuAfxsUnifyInputProblem& p : s.inputProblems) {
    if (p.path == path && p.refuses) {
      what += "; at byte " + std::to_string(p.problem.offset) + ": " + p.problem.message;
    }
  }
  raiseError(what, path, {}, s.errnum);
}

// Raises for every summary whose output was not written.
void raiseUnlessWritten(const LuAfxsUnifySummary& s, const std::wstring& output, Capture& cap) {
  switch (s.status) {
    case LuAfxsUnifyStatus::Written:
      return;
    case LuAfxsUnifyStatus::BadArguments:
    case LuAfxsUnifyStatus::NotUnifiable:
      throw py::value_error("unify: " + narrow(s.message));
    case LuAfxsUnifyStatus::InputRefused:
      raiseInputRefusal(s);
    case LuAfxsUnifyStatus::OutputRefused:
      raiseOutputProblem(output, {s.errnum, s.message});
    case LuAfxsUnifyStatus::OutputDamaged:
      raiseError(narrow(s.message), output, {}, EINVAL, "data");
    case LuAfxsUnifyStatus::Cancelled:
      checkInterrupt(cap);
      break;
    case LuAfxsUnifyStatus::Incomplete:
    case LuAfxsUnifyStatus::NotCommitted:
      break;
  }
  std::string why;
  for (const LuAfxsUnifyFailure& f : s.failures) {
    if (f.code == 0) why += "; " + narrow(f.what);
  }
  raiseError(narrow(s.message) + why, output, cap.reports, s.errnum);
}

py::dict unify(const std::vector<std::wstring>& inputs, const std::wstring& output,
               std::optional<std::vector<uint32_t>> outputIds, bool blend, uint32_t xsId) {
  LuAfxsUnifyOptions options;
  options.blend = blend;
  options.xsId = xsId;
  Capture cap;
  // A KeyboardInterrupt raised meanwhile (by a logging handler or Ctrl-C)
  // cancels the call before the output is put in place.
  options.keepGoing = [&cap] { return !cap.pending && PyErr_CheckSignals() == 0; };
  const LuAfxsUnifySummary summary =
      luAfxsUnifyFiles(inputs, outputIds.value_or(std::vector<uint32_t>{}), output, options);
  if (PyErr_Occurred() != nullptr) throw py::error_already_set();
  raiseUnlessWritten(summary, output, cap);
  return unifySummary(summary);
}
}  // namespace

void bindFileApi(py::module_& m) {
  m.attr("KEEP_SUBSET_IDS") = kLuAfxsKeepSubsetIds;

  py::class_<PyFile>(m, "File")
      .def(py::init<const std::wstring&, uint32_t>(), py::arg("path"), py::arg("mask"))
      .def("__len__", &PyFile::size)
      .def_property_readonly("path", &PyFile::path)
      .def_property_readonly("closed", &PyFile::closed)
      .def_property_readonly("update_supported", &PyFile::updateSupported)
      .def_property_readonly("writable", &PyFile::writable)
      .def("close", &PyFile::close)
      .def("header", &PyFile::header)
      .def("cameras", &PyFile::cameras)
      .def("plane_id",
           [](const PyFile& f, py::ssize_t i) { return f.record(i).getPlaneData().planeId; })
      .def("subset_id",
           [](const PyFile& f, py::ssize_t i) { return f.record(i).getPlaneData().subsetId; })
      .def("state", [](const PyFile& f, py::ssize_t i) { return f.record(i).state(); })
      .def("file_state", [](const PyFile& f, py::ssize_t i) { return f.record(i).fileState(); })
      .def(
          "field",
          [](py::object self, py::ssize_t i, const std::string& name) {
            return self.cast<PyFile&>().field(self, i, name);
          },
          py::arg("index"), py::arg("name"))
      .def("set_results", &PyFile::setResults, py::arg("index"), py::arg("res_points"),
           py::arg("distances"))
      .def("flush", &PyFile::flush, py::arg("index"))
      .def("flush_results", &PyFile::flushResults)
      .def("find", &PyFile::find, py::arg("plane_id"), py::arg("subset_id"));

  m.def("write", &writeFile, py::arg("path"), py::arg("header"), py::arg("planes"),
        py::arg("cameras"));
  m.def("remove_fields", &removeFields, py::arg("path"), py::arg("mask"));
  m.def("unify", &unify, py::arg("inputs"), py::arg("output"), py::arg("output_ids"),
        py::arg("blend"), py::arg("xs_id"));
}

}  // namespace luanafpy

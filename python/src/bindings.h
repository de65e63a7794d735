// Shared pieces of the _luanaf module: error capture, arrays, headers, the
// safety check before a data set sees a file. Internal to the module.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <luAnaf/luAfxsOutput.h>
#include <luAnaf/luAnaf.h>

namespace luanafpy {

namespace py = pybind11;

// Reports and level-5 log records arriving while one binding call runs. The
// innermost capture gets them; outside any call, reports go to the log.
// Every binding call holds the GIL, which serialises use of the library.
//
// A KeyboardInterrupt (or another exception that is no Exception) raised by
// Python code that a sink called (a logging handler, a signal handler run
// there) is kept in `pending`, not swallowed; checkInterrupt raises it when
// the call can stop without harm.
struct Capture {
  std::vector<LuErrorReport> reports;
  std::vector<LuLogRecord> failures;  // level 5 records
  std::vector<LuLogRecord> records;   // every log record
  std::optional<py::error_already_set> pending;
  Capture* outer;

  Capture();
  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;
};

// Installs the error and log sinks (log records go to logging "luanaf");
// shutdownSinks restores the previous ones before the interpreter goes.
void installSinks();
void shutdownSinks();
// The package's error factory (luanaf._make_error), registered by its __init__.
void setErrorClass(py::object factory);

std::string narrow(const std::wstring& w);

// Raises the package's error with the reports (code = the last report's
// code), or OSError before the package registered its factory. errnum 0
// means none. `kind` picks a class beside the errno: "data" (luanaf.DataError),
// "same_file" (luanaf.SameFileError), "not_regular" (luanaf.NotARegularFileError).
[[noreturn]] void raiseError(const std::string& what, const std::wstring& path,
                             const std::vector<LuErrorReport>& reports, int errnum = 0,
                             const char* kind = "");

// Raises what a sink kept in cap.pending, or a pending signal's exception
// (KeyboardInterrupt for Ctrl-C); returns when there is none.
void checkInterrupt(Capture& cap);

// Raises unless path is an existing regular file that a data set can load;
// never deletes the file, never opens a FIFO. Leaves the link verified (and
// its file open). Returns the read-only inspection of the file.
LuAfxsInspection verifyOrRaise(LuAfxsUserLink& link, const std::wstring& path);

// ---- What would make a damaged file ----
// The groups a rewrite copies: result points and distances never survive it.
constexpr uint32_t kCopiedMask =
    LU_AFXS_MASK_POINTS | LU_AFXS_MASK_SEGMENTS | LU_AFXS_MASK_NORMALS | LU_AFXS_MASK_AUX;
// "points, segments, ..." in the luafxs tool's names, "none" for 0.
std::string groupNames(uint32_t mask);
// Why writing the groups `mask` of p would give a file that validate calls
// damaged ("plane P subset S: ..."), or "" when it would not: an empty group,
// normals, result points or distances other than one per point (without
// points: distances other than one per result point), segments that do not
// tile the points, aux counts that do not add up to the positions.
std::string planeLengthProblem(const LuAfxsPlane& p, uint32_t mask);
// Why removing `mask` from the loaded records of set (segments loaded) would
// leave a damaged file, or "": a record left without any copied group
// vanishes, segments left without their points count points that are gone.
std::string removalDamage(const LuAfxsUserDataSet& set, uint32_t mask);
// The groups of `present` that may be removed one at a time.
std::string removableGroups(const LuAfxsUserDataSet& set, uint32_t present);

// ---- Outputs ----
// One file a binding creates or rewrites: checked before anything is written
// (raises for a directory, a special file, a read-only file, one of
// `inputs`), written to tempPath() beside it, and put in place by commit()
// only after the written file checked clean. Destroyed without a commit,
// it removes the temporary and leaves the old file as it was.
// libraryReportsMissingFolder: a missing folder is not raised here but left
// to the library's create, whose error code the caller then reports.
class OutputTarget {
public:
  OutputTarget(const std::wstring& requested, const std::vector<std::wstring>& inputs,
               bool libraryReportsMissingFolder = false);
  ~OutputTarget();
  OutputTarget(const OutputTarget&) = delete;
  OutputTarget& operator=(const OutputTarget&) = delete;
  const std::wstring& requested() const { return m_requested; }
  const std::wstring& finalPath() const { return m_final; }
  const std::wstring& tempPath() const;
  // Inspects the temporary file as validate does (raises DataError on any
  // problem), raises a pending interrupt, then renames it into place.
  // Returns the inspection of the written file.
  LuAfxsInspection commit(Capture& cap);

private:
  std::wstring m_requested;
  std::wstring m_final;
  std::unique_ptr<LuAfxsOutputFile> m_file;
};

// Raises the error that fits an output problem (IsADirectoryError, ...).
[[noreturn]] void raiseOutputProblem(const std::wstring& path, const LuAfxsOutputProblem& problem);

// ---- Arrays ----
using Vec3Array = py::array_t<double, py::array::c_style | py::array::forcecast>;
template <typename T>
using FlatArray = py::array_t<T, py::array::c_style | py::array::forcecast>;

void makeReadOnly(py::array& a);
// A read-only (n, 3) view of the vector that `base` keeps alive; the caller
// guarantees the vector keeps its storage while base lives.
py::array viewVec3(const std::vector<LuVec3>& v, py::handle base);
py::array copyVec3(const std::vector<LuVec3>& v);
// An (n, 3) float64 array (n may be 0); TypeError or ValueError otherwise.
Vec3Array asVec3(py::handle obj, const char* name);
std::vector<LuVec3> vec3Vector(py::handle obj, const char* name);

inline const double (*rows(const Vec3Array& a))[3] {
  return reinterpret_cast<const double(*)[3]>(a.data());
}

template <typename T>
py::array viewFlat(const std::vector<T>& v, py::handle base) {
  if (v.empty()) return py::array_t<T>(std::vector<py::ssize_t>{0});
  py::array a(py::dtype::of<T>(), std::vector<py::ssize_t>{static_cast<py::ssize_t>(v.size())},
              std::vector<py::ssize_t>{static_cast<py::ssize_t>(sizeof(T))}, v.data(), base);
  makeReadOnly(a);
  return a;
}

template <typename T>
py::array copyFlat(const std::vector<T>& v) {
  py::array_t<T> a(std::vector<py::ssize_t>{static_cast<py::ssize_t>(v.size())});
  if (!v.empty()) std::memcpy(a.mutable_data(), v.data(), v.size() * sizeof(T));
  return a;
}

template <typename T>
FlatArray<T> asFlat(py::handle obj, const char* name) {
  FlatArray<T> a = FlatArray<T>::ensure(obj);
  if (!a) {
    PyErr_Clear();
    throw py::type_error(std::string(name) + ": expected a one-dimensional array");
  }
  if (a.ndim() != 1) throw py::value_error(std::string(name) + ": expected shape (n,)");
  return a;
}

template <typename T>
std::vector<T> flatVector(py::handle obj, const char* name) {
  FlatArray<T> a = asFlat<T>(obj, name);
  return std::vector<T>(a.data(), a.data() + a.shape(0));
}

// ---- Header and cameras ----
py::dict headerToDict(const LuAfxsHeader& h);
LuAfxsHeader headerFromDict(const py::dict& d);
LuAfxsCamerasTable camerasFromObject(py::handle obj);

// ---- The parts of the module ----
void bindFileApi(py::module_& m);
void bindLibraryClasses(py::module_& m);
void bindSection(py::module_& m);

}  // namespace luanafpy

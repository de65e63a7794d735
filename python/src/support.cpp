// Error capture, sinks, arrays and headers shared by the parts of _luanaf.
#include <cerrno>
#include <cstdio>
#include <filesystem>

#include <luAnaf/luAfxsFileCheck.h>

#include "bindings.h"

namespace luanafpy {

namespace {

Capture* g_capture = nullptr;
bool g_sinksActive = false;  // cleared by _shutdown before the interpreter goes
LuErrorSink g_previousErrorSink;
LuLogSink g_previousLogSink;
PyObject* g_errorClass = nullptr;  // luanaf._make_error, registered by the package

std::string hex32(uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08x", v);
  return buf;
}

std::string describe(const LuErrorReport& r) {
  std::string text =
      "error " + hex32(r.code) + " (" + narrow(r.source) + ":" + std::to_string(r.line) + ")";
  if (r.hasSystemText) text += ": " + narrow(r.systemText);
  return text;
}

// Python logging level of a library log level: 0 progress, 5 failure.
int pythonLevel(int level) {
  if (level <= 0) return 20;  // INFO
  if (level >= 5) return 40;  // ERROR
  return 30;                  // WARNING
}

void emitToLogging(int pyLevel, const std::wstring& message, const LuLogRecord* record) {
  static py::object* logger = nullptr;  // never freed: it must outlive static destruction
  if (logger == nullptr) {
    logger = new py::object(py::module_::import("logging").attr("getLogger")("luanaf"));
  }
  if (!(*logger).attr("isEnabledFor")(pyLevel).cast<bool>()) return;
  py::dict extra;
  if (record != nullptr) {
    extra["luanaf_level"] = record->level;
    extra["luanaf_line"] = record->line;
    extra["luanaf_source"] = record->source;
    extra["luanaf_build_date"] = record->buildDate;
  }
  (*logger).attr("log")(pyLevel, "%s", message, py::arg("extra") = extra);
}

// Python code run from a sink raised e: a KeyboardInterrupt (or another
// exception that is no Exception) is kept for the running call to raise;
// anything else cannot cross the library and goes to sys.unraisablehook.
void keepOrDiscard(py::error_already_set& e, const char* where) {
  if (g_capture != nullptr && !g_capture->pending && !e.matches(PyExc_Exception)) {
    g_capture->pending = std::move(e);
    return;
  }
  e.discard_as_unraisable(where);
}

void errorSink(const LuErrorReport& report) {
  if (!g_sinksActive) return;
  py::gil_scoped_acquire gil;
  if (g_capture != nullptr) {
    g_capture->reports.push_back(report);
    return;
  }
  // A report outside any call (a link destroyed by the garbage collector).
  try {
    std::string text = "luAnaf " + describe(report) + " for " + narrow(report.path);
    emitToLogging(40, py::cast(text).cast<std::wstring>(), nullptr);
  } catch (py::error_already_set& e) {
    keepOrDiscard(e, "luanaf error sink");
  } catch (...) {
  }
}

void logSink(const LuLogRecord& record) {
  if (!g_sinksActive) return;
  py::gil_scoped_acquire gil;
  if (g_capture != nullptr) {
    g_capture->records.push_back(record);
    if (record.level >= 5) g_capture->failures.push_back(record);
  }
  try {
    emitToLogging(pythonLevel(record.level), record.message, &record);
  } catch (py::error_already_set& e) {
    keepOrDiscard(e, "luanaf log sink");
  } catch (...) {
  }
}

}  // namespace

// ---- Error reports and log records ----

Capture::Capture() : outer(g_capture) { g_capture = this; }
Capture::~Capture() {
  g_capture = outer;
  // An interrupt not raised here is raised by the enclosing call.
  if (pending && outer != nullptr && !outer->pending) outer->pending = std::move(pending);
}

void checkInterrupt(Capture& cap) {
  if (cap.pending) {
    py::error_already_set e = std::move(*cap.pending);
    cap.pending.reset();
    throw e;
  }
  if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

std::string narrow(const std::wstring& w) { return luWideToUtf8(w); }

void raiseError(const std::string& what, const std::wstring& path,
                const std::vector<LuErrorReport>& reports, int errnum, const char* kind) {
  std::string message = what;
  py::list reportList;
  py::object code = py::none();
  for (const LuErrorReport& r : reports) {
    message += "; " + describe(r);
    py::dict d;
    d["code"] = r.code;
    d["line"] = r.line;
    d["source"] = r.source;
    d["path"] = r.path;
    d["build_date"] = r.buildDate;
    d["system_text"] = r.hasSystemText ? py::cast(r.systemText) : py::none();
    reportList.append(d);
    code = py::int_(r.code);  // the outermost operation reports last
  }
  py::object pathObj = py::cast(path);
  py::object errnoObj = errnum != 0 ? py::object(py::int_(errnum)) : py::object(py::none());
  if (g_errorClass != nullptr) {
    py::object factory = py::reinterpret_borrow<py::object>(g_errorClass);
    py::object exc = factory(message, py::arg("code") = code, py::arg("path") = pathObj,
                             py::arg("reports") = reportList, py::arg("errno") = errnoObj,
                             py::arg("kind") = kind);
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(exc.ptr())), exc.ptr());
  } else {
    py::object exc = py::reinterpret_borrow<py::object>(PyExc_OSError)(errnoObj, message, pathObj);
    PyErr_SetObject(PyExc_OSError, exc.ptr());
  }
  throw py::error_already_set();
}

// ---- Arrays -----------------------------------------------------------------

void makeReadOnly(py::array& a) { a.attr("setflags")(py::arg("write") = false); }

py::array viewVec3(const std::vector<LuVec3>& v, py::handle base) {
  if (v.empty()) return py::array_t<double>(std::vector<py::ssize_t>{0, 3});
  py::array a(py::dtype::of<double>(),
              std::vector<py::ssize_t>{static_cast<py::ssize_t>(v.size()), 3},
              std::vector<py::ssize_t>{static_cast<py::ssize_t>(sizeof(LuVec3)),
                                       static_cast<py::ssize_t>(sizeof(double))},
              &v[0].x, base);
  makeReadOnly(a);
  return a;
}

py::array copyVec3(const std::vector<LuVec3>& v) {
  py::array_t<double> a(std::vector<py::ssize_t>{static_cast<py::ssize_t>(v.size()), 3});
  if (!v.empty()) std::memcpy(a.mutable_data(), v.data(), v.size() * sizeof(LuVec3));
  return a;
}

// Checks an (n, 3) float64 array; n may be 0.
Vec3Array asVec3(py::handle obj, const char* name) {
  Vec3Array a = Vec3Array::ensure(obj);
  if (!a) {
    PyErr_Clear();
    throw py::type_error(std::string(name) + ": expected an array of float64");
  }
  if (a.ndim() != 2 || a.shape(1) != 3) {
    throw py::value_error(std::string(name) + ": expected shape (n, 3)");
  }
  return a;
}

std::vector<LuVec3> vec3Vector(py::handle obj, const char* name) {
  Vec3Array a = asVec3(obj, name);
  std::vector<LuVec3> v(static_cast<size_t>(a.shape(0)));
  if (!v.empty()) std::memcpy(v.data(), a.data(), v.size() * sizeof(LuVec3));
  return v;
}

// ---- Header and cameras -----------------------------------------------------

py::dict headerToDict(const LuAfxsHeader& h) {
  py::dict d;
  d["version"] = h.version;
  d["point"] = py::make_tuple(h.point[0], h.point[1], h.point[2]);
  d["normal"] = py::make_tuple(h.normal[0], h.normal[1], h.normal[2]);
  d["num_planes"] = h.numPlanes;
  d["dist_bw_planes"] = h.distBwPlanes;
  return d;
}

LuAfxsHeader headerFromDict(const py::dict& d) {
  LuAfxsHeader h;
  if (d.contains("version")) h.version = d["version"].cast<int32_t>();
  for (const char* key : {"point", "normal"}) {
    if (!d.contains(key)) continue;
    std::vector<double> v = d[key].cast<std::vector<double>>();
    if (v.size() != 3)
      throw py::value_error(std::string("header '") + key + "': expected 3 values");
    double* target = std::strcmp(key, "point") == 0 ? h.point : h.normal;
    for (int i = 0; i < 3; ++i) target[i] = v[i];
  }
  if (d.contains("num_planes")) h.numPlanes = d["num_planes"].cast<uint64_t>();
  if (d.contains("dist_bw_planes")) h.distBwPlanes = d["dist_bw_planes"].cast<double>();
  return h;
}

LuAfxsCamerasTable camerasFromObject(py::handle obj) {
  LuAfxsCamerasTable table;
  if (obj.is_none()) return table;
  Vec3Array a = asVec3(obj, "cameras");
  const double(*r)[3] = rows(a);
  for (py::ssize_t i = 0; i < a.shape(0); ++i) table.cameras.push_back({r[i][0], r[i][1], r[i][2]});
  return table;
}
// ---- Checking a file before a data set sees it --------------------------------

// A data set deletes a file that its first load cannot verify, so a file
// reaches a data set only after two checks that never delete: the read-only
// inspection walk, which also says what a load would trip over and where,
// and verify() on the link itself, which gives the library's error codes.
// The data set's own verify then finds the modification time unchanged and
// reads nothing again.
LuAfxsInspection verifyOrRaise(LuAfxsUserLink& link, const std::wstring& path) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const fs::file_status status = fs::status(fs::path(path), ec);
  if (!LuFileExist(path.c_str()) || status.type() == fs::file_type::not_found) {
    raiseError("no such file", path, {}, ENOENT);
  }
  if (fs::is_directory(status)) raiseError("is a directory", path, {}, EISDIR);
  if (!ec && !fs::is_regular_file(status)) {
    raiseError("is not a regular file (a FIFO, device or socket)", path, {}, EINVAL, "not_regular");
  }
  LuAfxsInspection inspection = luAfxsInspect(path, false);
  Capture cap;
  const bool verified = link.verify(true);
  if (verified && inspection.loadable()) return inspection;
  std::string what = "not a readable cross-section file";
  for (const LuAfxsInspectProblem& p : inspection.problems) {
    if (p.breaksLoad) what += "; at byte " + std::to_string(p.offset) + ": " + p.message;
  }
  raiseError(what, path, cap.reports);
}
void setErrorClass(py::object factory) {
  Py_XDECREF(g_errorClass);
  g_errorClass = factory.release().ptr();
}

void installSinks() {
  if (g_sinksActive) return;
  g_sinksActive = true;
  g_previousErrorSink = luEnvSetErrorSink(errorSink);
  g_previousLogSink = luEnvSetLogSink(logSink);
}

void shutdownSinks() {
  if (!g_sinksActive) return;
  g_sinksActive = false;
  luEnvSetErrorSink(g_previousErrorSink);
  luEnvSetLogSink(g_previousLogSink);
}
}  // namespace luanafpy

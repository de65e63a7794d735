// _luanaf: the compiled half of the luanaf Python package. A thin layer over
// the public C++ API of luAnaf: every byte is read and written by the library;
// the module only moves arrays across and turns false results into exceptions.
//
// Locking: every call keeps the GIL for its whole duration. The library keeps
// unguarded process-wide state (the unification registry, the sinks), so
// holding the GIL is what serialises Python threads on it.
#include "bindings.h"

namespace py = pybind11;

PYBIND11_MODULE(_luanaf, m) {
  m.doc() = "Compiled half of luanaf; use the luanaf package.";

  m.attr("MASK_POINTS") = static_cast<uint32_t>(LU_AFXS_MASK_POINTS);
  m.attr("MASK_SEGMENTS") = static_cast<uint32_t>(LU_AFXS_MASK_SEGMENTS);
  m.attr("MASK_NORMALS") = static_cast<uint32_t>(LU_AFXS_MASK_NORMALS);
  m.attr("MASK_AUX") = static_cast<uint32_t>(LU_AFXS_MASK_AUX);
  m.attr("MASK_RESPOINTS") = static_cast<uint32_t>(LU_AFXS_MASK_RESPOINTS);
  m.attr("MASK_DISTANCES") = static_cast<uint32_t>(LU_AFXS_MASK_DISTANCES);
  m.attr("MASK_ALL") = static_cast<uint32_t>(LU_AFXS_MASK_ALL);
  m.attr("build_date") = std::wstring(luEnvBuildDate());

  luanafpy::bindFileApi(m);
  luanafpy::bindLibraryClasses(m);
  luanafpy::bindSection(m);

  m.def("_set_error_class", &luanafpy::setErrorClass);
  m.def("_shutdown", &luanafpy::shutdownSinks);
  luanafpy::installSinks();
}

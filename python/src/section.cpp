// luanaf.slice and luanaf.compare: the mesh cut and the contour comparison
// of the library, on numpy arrays.
#include "bindings.h"

#include <luAnaf/luAfxsSection.h>

namespace luanafpy {

namespace {

std::vector<uint32_t> faceIndices(py::handle obj, size_t vertexCount) {
  using Faces = py::array_t<int64_t, py::array::c_style | py::array::forcecast>;
  Faces a = Faces::ensure(obj);
  if (!a) {
    PyErr_Clear();
    throw py::type_error("faces: expected an integer array of shape (m, 3)");
  }
  if (a.ndim() != 2 || a.shape(1) != 3) throw py::value_error("faces: expected shape (m, 3)");
  std::vector<uint32_t> faces;
  faces.reserve(static_cast<size_t>(a.size()));
  for (py::ssize_t i = 0; i < a.size(); ++i) {
    int64_t v = a.data()[i];
    if (v < 0 || static_cast<uint64_t>(v) >= vertexCount)
      throw py::value_error("faces: vertex index " + std::to_string(v) + " out of range");
    faces.push_back(static_cast<uint32_t>(v));
  }
  return faces;
}

LuVec3 triple(py::handle obj, const char* name) {
  std::vector<double> v = obj.cast<std::vector<double>>();
  if (v.size() != 3) throw py::value_error(std::string(name) + ": expected three numbers");
  return {v[0], v[1], v[2]};
}

py::dict familyDict(const LuAfxsPlaneFamily& f) {
  py::dict d;
  d["point"] = py::make_tuple(f.origin.x, f.origin.y, f.origin.z);
  d["normal"] = py::make_tuple(f.normal.x, f.normal.y, f.normal.z);
  d["num_planes"] = f.count;
  d["dist_bw_planes"] = f.spacing;
  return d;
}

py::dict contourDict(const LuAfxsContour& c) {
  py::dict d;
  d["plane_id"] = c.planeId;
  d["points"] = copyVec3(c.points);
  d["normals"] = copyVec3(c.normals);
  d["segments"] = copyFlat(c.segments);
  d["faces"] = copyFlat(c.faces);
  py::list closed;
  for (uint8_t b : c.closed) closed.append(b != 0);
  d["closed"] = closed;
  return d;
}

py::dict slice(py::handle vertices, py::handle faces, uint32_t planes, double spacing,
               py::handle normal, py::handle origin) {
  std::vector<LuVec3> v = vec3Vector(vertices, "vertices");
  std::vector<uint32_t> f = faceIndices(faces, v.size());
  if ((planes > 0) == (spacing > 0))
    throw py::value_error("give exactly one of planes (> 0) and spacing (> 0)");
  LuVec3 n = triple(normal, "normal");
  LuVec3 o{0, 0, 0};
  const LuVec3* op = nullptr;
  if (!origin.is_none()) {
    o = triple(origin, "origin");
    op = &o;
  }
  LuAfxsPlaneFamily family;
  bool ok = planes > 0 ? luAfxsFamilyByCount(v, n, planes, op, family)
                       : luAfxsFamilyBySpacing(v, n, spacing, op, family);
  if (!ok) throw py::value_error("no plane of the family meets the vertices");
  std::vector<LuAfxsContour> contours;
  LuAfxsSliceReport report;
  luAfxsSliceMesh(v, f, family, contours, &report);
  py::list list;
  for (const LuAfxsContour& c : contours) list.append(contourDict(c));
  py::dict r;
  r["family"] = familyDict(family);
  r["planes"] = list;
  py::dict rep;
  rep["merged_vertices"] = report.mergedVertices;
  rep["skipped_faces"] = report.skippedFaces;
  rep["non_manifold_edges"] = report.nonManifoldEdges;
  rep["open_polylines"] = report.openPolylines;
  rep["closed_polylines"] = report.closedPolylines;
  rep["dropped_polylines"] = report.droppedPolylines;
  r["report"] = rep;
  return r;
}

LuAfxsPlane planeOf(py::handle points, py::handle normals, py::handle segments, const char* what) {
  LuAfxsPlane p;
  p.points = vec3Vector(points, what);
  if (!normals.is_none()) p.normals = vec3Vector(normals, "normals");
  if (!segments.is_none()) p.segments = flatVector<int32_t>(segments, "segments");
  if (!p.normals.empty() && p.normals.size() != p.points.size())
    throw py::value_error(std::string(what) + ": normals and points differ in length");
  return p;
}

py::dict compare(py::handle mPoints, py::handle mNormals, py::handle mSegments, py::handle nPoints,
                 py::handle nNormals, py::handle nSegments) {
  LuAfxsPlane measured = planeOf(mPoints, mNormals, mSegments, "measured points");
  LuAfxsPlane nominal = planeOf(nPoints, nNormals, nSegments, "nominal points");
  LuAfxsPlaneDeviation dev;
  if (!luAfxsComparePlane(measured, nominal, dev))
    throw py::value_error("the nominal contour has no points");
  py::dict r;
  r["res_points"] = copyVec3(dev.resultPoints);
  r["distances"] = copyFlat(dev.distances);
  r["count"] = dev.count;
  r["min"] = dev.min;
  r["max"] = dev.max;
  r["mean"] = dev.mean;
  r["rms"] = dev.rms;
  r["worst_index"] = dev.worstIndex;
  return r;
}

}  // namespace

void bindSection(py::module_& m) {
  m.def("_slice", &slice, py::arg("vertices"), py::arg("faces"), py::arg("planes"),
        py::arg("spacing"), py::arg("normal"), py::arg("origin"));
  m.def("_compare", &compare, py::arg("measured_points"), py::arg("measured_normals"),
        py::arg("measured_segments"), py::arg("nominal_points"), py::arg("nominal_normals"),
        py::arg("nominal_segments"));
}

}  // namespace luanafpy

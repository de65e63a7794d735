// luafxs slice: cut a triangle mesh with a family of parallel planes and
// write the contours as a cross-section file (one subset, one segment per
// polyline, normals pointing out of the solid); with --view-split, two
// partial scans of the mesh seen from two directions instead.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <utility>

#include <fmt/format.h>

#include "luafxs.h"

namespace luafxs {

namespace {

constexpr double kPi = 3.14159265358979323846;
// How far past the silhouette a partial scan still sees a face.
constexpr double kGrazingDegrees = 10;

LuVec3 vec(const std::vector<double>& v) { return {v[0], v[1], v[2]}; }

// `u` turned by `degrees` about the unit axis n (u is perpendicular to n).
LuVec3 rotated(const LuVec3& u, const LuVec3& n, double degrees) {
  double a = degrees * kPi / 180;
  return u * std::cos(a) + n.cross(u) * std::sin(a);
}

// An in-plane axis: the x axis (or y, when the normal is near x) made
// perpendicular to the normal.
LuVec3 inPlaneAxis(const LuVec3& n) {
  LuVec3 x = std::fabs(n.x) < 0.9 ? LuVec3{1, 0, 0} : LuVec3{0, 1, 0};
  LuVec3 u = x - n * x.dot(n);
  return u * (1.0 / u.length());
}

struct SlicedFile {
  std::string path;
  uint32_t subset = 0;
  std::vector<LuAfxsContour> contours;
  LuAfxsSliceReport report;
  uint64_t points = 0;  // counted before the contours' arrays go to the file
};

// The contours' arrays are handed over to the records, not copied.
bool writeContours(const std::wstring& path, const LuAfxsPlaneFamily& family, SlicedFile& sliced) {
  LuAfxsCreateLink link(path.c_str());
  LuAfxsHeader header;
  header.version = 1;
  for (int k = 0; k < 3; ++k) {
    header.point[k] = family.origin[k];
    header.normal[k] = family.normal[k];
  }
  header.numPlanes = family.count;
  header.distBwPlanes = family.spacing;
  link.setHeader(header);
  if (!link.create(true)) return false;
  for (LuAfxsContour& c : sliced.contours) {
    LuAfxsCreateData data(link, c.planeId, sliced.subset);
    data.setPoints(std::move(c.points));
    data.setNormals(std::move(c.normals));
    data.setSegments(std::move(c.segments));
    if (!data.flush()) return false;
  }
  link.release();
  link.closeFile(true);
  return link.isOK();
}

bool writeSliced(const LuAfxsPlaneFamily& family, SlicedFile& sliced) {
  LuAfxsOutputFile file(widen(sliced.path));
  if (!file.ok()) {
    error(sliced.path, describe(file.creationProblem()) + "; nothing was written");
    return false;
  }
  file.addCompanion(file.tempPath() + L".tmp");
  if (!writeContours(file.tempPath(), family, sliced)) {
    error(sliced.path, "the contours could not be written; nothing was written");
    return false;
  }
  return commitOutput(file, sliced.path);
}

// "scan.afxs" -> "scan-1.afxs".
std::string viewPath(const std::string& output, int view) {
  std::filesystem::path p(output);
  std::string name = p.stem().string() + "-" + std::to_string(view) + p.extension().string();
  return (p.parent_path() / name).string();
}

bool chooseFamily(const SliceArgs& args, const MeshData& mesh, LuAfxsPlaneFamily& family) {
  LuVec3 origin = args.origin.size() == 3 ? vec(args.origin) : LuVec3{0, 0, 0};
  const LuVec3* o = args.origin.size() == 3 ? &origin : nullptr;
  bool ok = args.planes > 0
                ? luAfxsFamilyByCount(mesh.vertices, vec(args.normal), args.planes, o, family)
                : luAfxsFamilyBySpacing(mesh.vertices, vec(args.normal), args.spacing, o, family);
  if (!ok)
    error(args.mesh,
          "no plane of the family meets the mesh (check --normal, --origin, "
          "--spacing)");
  return ok;
}

nlohmann::json reportJson(const SlicedFile& s) {
  return {{"output", s.path},
          {"subset", s.subset},
          {"planesCut", s.contours.size()},
          {"points", s.points},
          {"closedPolylines", s.report.closedPolylines},
          {"openPolylines", s.report.openPolylines},
          {"droppedPolylines", s.report.droppedPolylines},
          {"nonManifoldEdges", s.report.nonManifoldEdges},
          {"mergedVertices", s.report.mergedVertices},
          {"skippedFaces", s.report.skippedFaces}};
}

}  // namespace

int runSlice(const SliceArgs& args) {
  if ((args.planes > 0) == (args.spacing > 0)) {
    error("", "slice needs exactly one of --planes N and --spacing D (run 'luafxs slice --help')");
    return kExitUsage;
  }
  // A zero or non-finite normal has no direction, and a non-finite origin no
  // place: said as such, not as a family that misses the mesh.
  const LuVec3 normal = vec(args.normal);
  if (!std::isfinite(normal.length()) || normal.length() == 0) {
    error("", fmt::format("--normal: {},{},{} gives no direction (its length is 0 or not finite; "
                          "run 'luafxs slice --help')",
                          normal.x, normal.y, normal.z));
    return kExitUsage;
  }
  if (!std::all_of(args.origin.begin(), args.origin.end(),
                   [](double c) { return std::isfinite(c); })) {
    error("", "--origin: every coordinate must be a finite number (run 'luafxs slice --help')");
    return kExitUsage;
  }
  std::vector<SlicedFile> files;
  if (args.viewSplit < 0) {
    files.push_back({args.output, args.subset, {}, {}, 0});
  } else {
    files.push_back({viewPath(args.output, 1), args.subset, {}, {}, 0});
    files.push_back({viewPath(args.output, 2), args.subset + 1, {}, {}, 0});
  }
  for (const SlicedFile& f : files)
    if (!outputAllowed(f.path, {args.mesh})) return kExitBad;
  MeshData mesh;
  std::string why;
  if (!readMesh(args.mesh, mesh, why, args.readSeconds)) {
    error(args.mesh, why);
    return kExitBad;
  }
  // Faces wound inward (a negative volume) are turned round, so that normals
  // point out and polylines run counter-clockwise about the normal.
  bool turned = luAfxsMeshVolume6(mesh.vertices, mesh.faces) < 0;
  if (turned)
    for (size_t f = 0; f + 2 < mesh.faces.size(); f += 3)
      std::swap(mesh.faces[f + 1], mesh.faces[f + 2]);
  LuAfxsPlaneFamily family;
  if (!chooseFamily(args, mesh, family)) return kExitBad;
  for (size_t i = 0; i < files.size(); ++i) {
    std::vector<uint32_t> faces = mesh.faces;
    if (files.size() == 2) {
      LuVec3 axis = inPlaneAxis(family.normal);
      double half = args.viewSplit / 2;
      LuVec3 direction = rotated(axis, family.normal, i == 0 ? -half : half);
      faces = luAfxsFacesSeenFrom(mesh.vertices, mesh.faces, direction, kGrazingDegrees);
    }
    luAfxsSliceMesh(mesh.vertices, faces, family, files[i].contours, &files[i].report);
    if (files[i].contours.empty()) {
      error(files[i].path, "no plane cuts the mesh; nothing was written");
      return kExitBad;
    }
  }
  for (SlicedFile& f : files) {
    for (const LuAfxsContour& c : f.contours) f.points += c.points.size();
    if (!writeSliced(family, f)) return kExitBad;
  }
  if (args.json) {
    nlohmann::json out = {{"mesh", args.mesh},
                          {"vertices", mesh.vertices.size()},
                          {"faces", mesh.faces.size() / 3},
                          {"windingTurned", turned},
                          {"family",
                           {{"point", {family.origin.x, family.origin.y, family.origin.z}},
                            {"normal", {family.normal.x, family.normal.y, family.normal.z}},
                            {"planes", family.count},
                            {"spacing", family.spacing}}},
                          {"files", nlohmann::json::array()}};
    for (const SlicedFile& f : files) out["files"].push_back(reportJson(f));
    fmt::print("{}\n", out.dump(2));
    return kExitOk;
  }
  fmt::print("{}: {} vertices, {} triangles{}\n", args.mesh, mesh.vertices.size(),
             mesh.faces.size() / 3, turned ? " (wound inward: turned round)" : "");
  fmt::print(
      "family: {} planes {:.6g} apart along ({:.6g}, {:.6g}, {:.6g}) from ({:.6g}, {:.6g}, "
      "{:.6g})\n",
      family.count, family.spacing, family.normal.x, family.normal.y, family.normal.z,
      family.origin.x, family.origin.y, family.origin.z);
  for (const SlicedFile& f : files) {
    nlohmann::json r = reportJson(f);
    fmt::print("wrote {}: subset {}, {} planes cut, {} points, {} closed and {} open polylines",
               f.path, f.subset, f.contours.size(), r["points"].get<uint64_t>(),
               f.report.closedPolylines, f.report.openPolylines);
    if (f.report.nonManifoldEdges || f.report.mergedVertices || f.report.skippedFaces ||
        f.report.droppedPolylines)
      fmt::print(
          " ({} vertices merged, {} faces skipped, {} non-manifold edges, {} one-point "
          "cuts dropped)",
          f.report.mergedVertices, f.report.skippedFaces, f.report.nonManifoldEdges,
          f.report.droppedPolylines);
    fmt::print("\n");
  }
  return kExitOk;
}

}  // namespace luafxs

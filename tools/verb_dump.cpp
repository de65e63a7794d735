// luafxs dump: the points of a file with the chosen fields, as xyz, csv,
// ASCII or binary PLY, or JSON.
#include <cstring>

#include <fmt/format.h>

#include "luafxs.h"

namespace luafxs {

namespace {

// A field of a plane is printed only when it runs parallel to the points.
bool parallel(size_t size, const LuAfxsPlane& p) { return size == p.points.size() && size != 0; }

// The segment of each point, from the running counts; -1 where the counts
// do not cover a point.
std::vector<int64_t> segmentOfPoints(const LuAfxsPlane& p) {
  std::vector<int64_t> out(p.points.size(), -1);
  int64_t start = 0;
  for (size_t s = 0; s < p.segments.size(); ++s) {
    int64_t end = std::min<int64_t>(p.segments[s], static_cast<int64_t>(out.size()));
    for (int64_t i = std::max<int64_t>(start, 0); i < end; ++i)
      out[static_cast<size_t>(i)] = static_cast<int64_t>(s);
    start = std::max(start, end);
  }
  return out;
}

void appendDouble(std::string& out, double v) {
  char bytes[8];
  std::memcpy(bytes, &v, 8);
  out.append(bytes, 8);
}
void appendU32(std::string& out, uint32_t v) {
  char bytes[4];
  std::memcpy(bytes, &v, 4);
  out.append(bytes, 4);
}

std::string dumpPly(const std::vector<const LuAfxsPlane*>& planes, uint32_t mask, bool binary) {
  bool normals = false, results = false, distances = false;
  size_t count = 0;
  for (const LuAfxsPlane* p : planes) {
    count += p->points.size();
    normals |= (mask & LU_AFXS_MASK_NORMALS) && parallel(p->normals.size(), *p);
    results |= (mask & LU_AFXS_MASK_RESPOINTS) && parallel(p->resPoints.size(), *p);
    distances |= (mask & LU_AFXS_MASK_DISTANCES) && parallel(p->distances.size(), *p);
  }
  std::string out = fmt::format(
      "ply\nformat {} 1.0\ncomment written by luafxs dump\nelement vertex {}\n"
      "property double x\nproperty double y\nproperty double z\n",
      binary ? "binary_little_endian" : "ascii", count);
  if (normals) out += "property double nx\nproperty double ny\nproperty double nz\n";
  if (results) out += "property double rx\nproperty double ry\nproperty double rz\n";
  if (distances) out += "property double distance\n";
  // int, not uint: some readers (Open3D among them) drop uint properties.
  out += "property int plane\nproperty int subset\nend_header\n";
  for (const LuAfxsPlane* p : planes) {
    bool hasN = parallel(p->normals.size(), *p), hasR = parallel(p->resPoints.size(), *p);
    bool hasD = parallel(p->distances.size(), *p);
    for (size_t i = 0; i < p->points.size(); ++i) {
      std::vector<double> values = {p->points[i].x, p->points[i].y, p->points[i].z};
      if (normals) {
        LuVec3 n = hasN ? p->normals[i] : LuVec3{0, 0, 0};
        values.insert(values.end(), {n.x, n.y, n.z});
      }
      if (results) {
        LuVec3 r = hasR ? p->resPoints[i] : p->points[i];
        values.insert(values.end(), {r.x, r.y, r.z});
      }
      if (distances) values.push_back(hasD ? p->distances[i] : 0.0);
      if (binary) {
        for (double v : values) appendDouble(out, v);
        appendU32(out, p->planeId);
        appendU32(out, p->subsetId);
      } else {
        for (double v : values) out += fmt::format("{} ", v);
        out += fmt::format("{} {}\n", static_cast<int32_t>(p->planeId),
                           static_cast<int32_t>(p->subsetId));
      }
    }
  }
  return out;
}

std::string dumpXyz(const std::vector<const LuAfxsPlane*>& planes) {
  std::string out;
  for (const LuAfxsPlane* p : planes)
    for (const LuVec3& v : p->points) out += fmt::format("{} {} {}\n", v.x, v.y, v.z);
  return out;
}

// The aux group of point i: its count and its positions, space-separated.
std::string auxCells(const LuAfxsPlane& p, size_t i) {
  std::string positions;
  uint64_t from = p.auxCtrlOffsets[i], count = p.auxCtrlCounts[i];
  for (uint64_t k = from; k < from + count && k < p.auxCtrlPos.size(); ++k)
    positions += (k == from ? "" : " ") + std::to_string(p.auxCtrlPos[k]);
  return fmt::format(",{},{}", count, positions);
}

std::string dumpCsv(const std::vector<const LuAfxsPlane*>& planes, uint32_t mask) {
  bool normals = mask & LU_AFXS_MASK_NORMALS, results = mask & LU_AFXS_MASK_RESPOINTS;
  bool distances = mask & LU_AFXS_MASK_DISTANCES, segments = mask & LU_AFXS_MASK_SEGMENTS;
  bool aux = mask & LU_AFXS_MASK_AUX;
  std::string out = "plane,subset,index";
  if (segments) out += ",segment";
  out += ",x,y,z";
  if (normals) out += ",nx,ny,nz";
  if (results) out += ",rx,ry,rz";
  if (distances) out += ",distance";
  if (aux) out += ",auxCount,auxPositions";
  out += "\n";
  for (const LuAfxsPlane* p : planes) {
    std::vector<int64_t> seg = segmentOfPoints(*p);
    bool hasA = parallel(p->auxCtrlCounts.size(), *p) &&
                p->auxCtrlOffsets.size() == p->auxCtrlCounts.size();
    bool hasN = parallel(p->normals.size(), *p), hasR = parallel(p->resPoints.size(), *p);
    bool hasD = parallel(p->distances.size(), *p);
    for (size_t i = 0; i < p->points.size(); ++i) {
      const LuVec3& v = p->points[i];
      out += fmt::format("{},{},{}", p->planeId, p->subsetId, i);
      if (segments) out += seg[i] < 0 ? std::string(",") : fmt::format(",{}", seg[i]);
      out += fmt::format(",{},{},{}", v.x, v.y, v.z);
      if (normals)
        out += hasN ? fmt::format(",{},{},{}", p->normals[i].x, p->normals[i].y, p->normals[i].z)
                    : std::string(",,,");
      if (results)
        out +=
            hasR ? fmt::format(",{},{},{}", p->resPoints[i].x, p->resPoints[i].y, p->resPoints[i].z)
                 : std::string(",,,");
      if (distances) out += hasD ? fmt::format(",{}", p->distances[i]) : std::string(",");
      if (aux) out += hasA ? auxCells(*p, i) : std::string(",,");
      out += "\n";
    }
  }
  return out;
}

nlohmann::json points(const std::vector<LuVec3>& v) {
  nlohmann::json out = nlohmann::json::array();
  for (const LuVec3& p : v) out.push_back({p.x, p.y, p.z});
  return out;
}

std::string dumpJson(const std::string& file, const std::vector<const LuAfxsPlane*>& planes,
                     uint32_t mask) {
  nlohmann::json list = nlohmann::json::array();
  for (const LuAfxsPlane* p : planes) {
    nlohmann::json plane = {{"plane", p->planeId}, {"subset", p->subsetId}};
    if (mask & LU_AFXS_MASK_POINTS) plane["points"] = points(p->points);
    if (mask & LU_AFXS_MASK_NORMALS) plane["normals"] = points(p->normals);
    if (mask & LU_AFXS_MASK_SEGMENTS) plane["segments"] = p->segments;
    if (mask & LU_AFXS_MASK_AUX) {
      plane["auxCtrlOffsets"] = p->auxCtrlOffsets;
      plane["auxCtrlCounts"] = p->auxCtrlCounts;
      plane["auxCtrlPos"] = p->auxCtrlPos;
    }
    if (mask & LU_AFXS_MASK_RESPOINTS) plane["resPoints"] = points(p->resPoints);
    if (mask & LU_AFXS_MASK_DISTANCES) plane["distances"] = p->distances;
    list.push_back(plane);
  }
  // One plane a line: readable, and still one JSON document.
  std::string out = fmt::format("{{\"file\": {}, \"fields\": {}, \"planes\": [",
                                nlohmann::json(file).dump(), maskNameList(mask).dump());
  for (size_t i = 0; i < list.size(); ++i) out += (i == 0 ? "\n" : ",\n") + list[i].dump();
  return out + "\n]}\n";
}

}  // namespace

int runDump(const DumpArgs& args) {
  uint32_t mask = LU_AFXS_MASK_ALL;
  if (!args.fields.empty()) {
    std::string bad;
    if (!parseFields(args.fields, mask, bad)) {
      error("", "--fields: unknown field group '" + bad +
                    "' (known: points,normals,segments,aux,results,distances)");
      return kExitUsage;
    }
  }
  std::string format = args.format;
  if (args.binary) {
    if (format != "ply" && format != "ply-binary") {
      error("", "--binary goes with --format ply");
      return kExitUsage;
    }
    format = "ply-binary";
  }
  // Every dump is of points: a list without them gets them.
  mask |= LU_AFXS_MASK_POINTS;
  if (!isStandardOutput(args.output) && !outputAllowed(args.output, {args.file})) return kExitBad;
  auto file = loadChecked(args.file, mask, false);
  if (!file) {
    // A JSON reader still gets one object.
    if (format == "json" && isStandardOutput(args.output))
      writeOutput(args.output, nlohmann::json({{"file", args.file},
                                               {"error", "the file cannot be dumped"},
                                               {"fields", nlohmann::json::array()},
                                               {"planes", nlohmann::json::array()}})
                                       .dump() +
                                   "\n");
    return kExitBad;
  }
  // Only fields the file holds are dumped.
  mask &= file->inspection.stateUnion | LU_AFXS_MASK_POINTS;
  std::vector<const LuAfxsPlane*> chosen;
  for (const LuAfxsPlane* p : file->planes) {
    if (args.plane >= 0 && p->planeId != static_cast<uint64_t>(args.plane)) continue;
    if (args.subset >= 0 && p->subsetId != static_cast<uint64_t>(args.subset)) continue;
    chosen.push_back(p);
  }
  if (chosen.empty() && (args.plane >= 0 || args.subset >= 0)) {
    error(args.file, "no plane subset matches the chosen --plane/--subset");
    return kExitBad;
  }
  std::string text;
  if (format == "xyz")
    text = dumpXyz(chosen);
  else if (format == "csv")
    text = dumpCsv(chosen, mask);
  else if (format == "ply")
    text = dumpPly(chosen, mask, false);
  else if (format == "ply-binary")
    text = dumpPly(chosen, mask, true);
  else
    text = dumpJson(args.file, chosen, mask);
  return writeOutput(args.output, text, format == "ply-binary") ? kExitOk : kExitBad;
}

}  // namespace luafxs

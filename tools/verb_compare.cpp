// luafxs compare: the deviation of a measured file from a nominal one, plane
// by plane. Each measured point gets as result point its nearest point on
// the nominal polylines and as distance its signed deviation (positive
// outside); both are appended to the measured file as results records, or
// written with a copy of it into a new file with -o. A summary per plane is
// printed as text or JSON.
#include <cmath>
#include <map>

#include <fmt/format.h>

#include "luafxs.h"

namespace luafxs {

namespace {

// Every subset of a plane id as one nominal plane (their polylines side by side).
std::map<uint32_t, LuAfxsPlane> nominalPlanes(const LoadedFile& nominal) {
  std::map<uint32_t, LuAfxsPlane> planes;
  for (const LuAfxsPlane* p : nominal.planes) {
    LuAfxsPlane& into = planes[p->planeId];
    into.planeId = p->planeId;
    const int32_t base = static_cast<int32_t>(into.points.size());
    bool normals =
        p->normals.size() == p->points.size() && into.normals.size() == into.points.size();
    into.points.insert(into.points.end(), p->points.begin(), p->points.end());
    if (normals)
      into.normals.insert(into.normals.end(), p->normals.begin(), p->normals.end());
    else
      into.normals.clear();
    if (p->segments.empty()) into.segments.push_back(base + static_cast<int32_t>(p->points.size()));
    for (int32_t s : p->segments) into.segments.push_back(base + s);
  }
  return planes;
}

struct Comparison {
  std::vector<LuAfxsPlaneDeviation> deviations;  // in the measured file's order
  std::vector<uint32_t> withoutNominal;          // measured plane ids the nominal lacks
};

Comparison compareFiles(const LoadedFile& measured, const LoadedFile& nominal) {
  Comparison c;
  std::map<uint32_t, LuAfxsPlane> planes = nominalPlanes(nominal);
  for (const LuAfxsPlane* m : measured.planes) {
    auto it = planes.find(m->planeId);
    LuAfxsPlaneDeviation dev;
    if (it == planes.end() || !luAfxsComparePlane(*m, it->second, dev)) {
      c.withoutNominal.push_back(m->planeId);
      dev = LuAfxsPlaneDeviation{};
      dev.planeId = m->planeId;
      dev.subsetId = m->subsetId;
      dev.count = 0;
    }
    c.deviations.push_back(std::move(dev));
  }
  return c;
}

// Appends the results to the measured file through its own records, all
// or nothing: a failed append takes back the ones before it.
bool appendResults(LoadedFile& measured, const Comparison& c) {
  // No second verify: the link keeps the file as it was loaded, so that an
  // append is refused when another process changed the file since; a verify
  // now would take those changes in while the records' verdict on results
  // below still describes the file as it was loaded.
  if (!measured.link->fileWritable()) {
    error(measured.path, "is read-only; give -o OUT.afxs to write the results into a new file");
    return false;
  }
  for (LuAfxsUserData* data : *measured.set)
    if (!data->getPlaneData().resPoints.empty() || !data->getPlaneData().distances.empty() ||
        (data->fileState() & (LU_AFXS_MASK_RESPOINTS | LU_AFXS_MASK_DISTANCES)) != 0) {
      error(measured.path,
            "already holds results; give -o OUT.afxs to write the comparison into a new file");
      return false;
    }
  size_t i = 0;
  size_t due = 0;
  for (LuAfxsUserData* data : *measured.set) {
    const LuAfxsPlaneDeviation& dev = c.deviations[i++];
    if (dev.count == 0) continue;
    data->setResPoints(reinterpret_cast<const double(*)[3]>(dev.resultPoints.data()),
                       dev.resultPoints.size());
    data->setDistances(dev.distances.data(), dev.distances.size());
    ++due;
  }
  const bool appended = measured.set->flushResults();
  measured.set->closefile();
  if (appended) return true;
  size_t pending = 0;
  for (LuAfxsUserData* data : *measured.set)
    if (data->hasUnflushedResults()) ++pending;
  if (pending == due)
    error(measured.path, "the results could not be appended; none of them was written");
  else
    error(measured.path, fmt::format("the results could not be appended; {} of {} records hold "
                                     "them now (the file was changed meanwhile, or could not be "
                                     "put back)",
                                     due - pending, due));
  return false;
}

bool writeCopy(const std::wstring& path, LoadedFile& measured, const Comparison& c) {
  LuAfxsCreateLink link(path.c_str());
  LuAfxsHeader header = measured.inspection.header;
  header.version = measured.inspection.hasVersion ? measured.inspection.version : 0;
  link.setHeader(header);
  LuAfxsUserLink camerasLink(widen(measured.path).c_str());
  if (camerasLink.verify(false)) link.setCameras(camerasLink.getCameras());
  if (!link.create(true)) return false;
  for (size_t i = 0; i < measured.planes.size(); ++i) {
    const LuAfxsPlane& p = *measured.planes[i];
    const LuAfxsPlaneDeviation& dev = c.deviations[i];
    LuAfxsCreateData data(link, p.planeId, p.subsetId);
    data.setPoints(reinterpret_cast<const double(*)[3]>(p.points.data()), p.points.size());
    data.setNormals(reinterpret_cast<const double(*)[3]>(p.normals.data()), p.normals.size());
    data.setSegments(p.segments.data(), p.segments.size());
    data.setAuxCtrlPos(p.auxCtrlPos.data(), p.auxCtrlPos.size(), p.auxCtrlCounts.data(),
                       p.auxCtrlCounts.size());
    data.setResPoints(reinterpret_cast<const double(*)[3]>(dev.resultPoints.data()),
                      dev.resultPoints.size());
    data.setDistances(dev.distances.data(), dev.distances.size());
    if (!data.flush()) return false;
  }
  link.release();
  link.closeFile(true);
  return link.isOK();
}

bool writeNewFile(const std::string& output, LoadedFile& measured, const Comparison& c) {
  LuAfxsOutputFile file(widen(output));
  if (!file.ok()) {
    error(output, describe(file.creationProblem()) + "; nothing was written");
    return false;
  }
  file.addCompanion(file.tempPath() + L".tmp");
  if (!writeCopy(file.tempPath(), measured, c)) {
    error(output, "the comparison could not be written; nothing was written");
    return false;
  }
  return commitOutput(file, output);
}

nlohmann::json planeJson(const LoadedFile& measured, size_t i, const LuAfxsPlaneDeviation& d) {
  nlohmann::json j = {{"plane", d.planeId}, {"subset", d.subsetId}, {"count", d.count}};
  if (d.count == 0) return j;
  const LuVec3& p = measured.planes[i]->points[d.worstIndex];
  j["min"] = d.min;
  j["max"] = d.max;
  j["mean"] = d.mean;
  j["rms"] = d.rms;
  j["worst"] = {
      {"index", d.worstIndex}, {"point", {p.x, p.y, p.z}}, {"distance", d.distances[d.worstIndex]}};
  return j;
}

void printSummary(const CompareArgs& args, const LoadedFile& measured, const Comparison& c,
                  const std::string& written) {
  if (args.json) {
    nlohmann::json out = {{"measured", args.measured},
                          {"nominal", args.nominal},
                          {"written", written},
                          {"planes", nlohmann::json::array()},
                          {"withoutNominal", c.withoutNominal}};
    for (size_t i = 0; i < c.deviations.size(); ++i)
      out["planes"].push_back(planeJson(measured, i, c.deviations[i]));
    fmt::print("{}\n", out.dump(2));
    return;
  }
  fmt::print("{:>6} {:>6} {:>7} {:>11} {:>11} {:>11} {:>11}  {}\n", "plane", "subset", "points",
             "min", "max", "mean", "rms", "worst (index: distance at x y z)");
  for (size_t i = 0; i < c.deviations.size(); ++i) {
    const LuAfxsPlaneDeviation& d = c.deviations[i];
    if (d.count == 0) {
      fmt::print("{:>6} {:>6} {:>7}  no nominal plane\n", d.planeId, d.subsetId, 0);
      continue;
    }
    const LuVec3& p = measured.planes[i]->points[d.worstIndex];
    fmt::print(
        "{:>6} {:>6} {:>7} {:>11.6f} {:>11.6f} {:>11.6f} {:>11.6f}  {}: {:.6f} at {:.6g} {:.6g} "
        "{:.6g}\n",
        d.planeId, d.subsetId, d.count, d.min, d.max, d.mean, d.rms, d.worstIndex,
        d.distances[d.worstIndex], p.x, p.y, p.z);
  }
  fmt::print("results written to {}\n", written);
}

}  // namespace

int runCompare(const CompareArgs& args) {
  if (!args.output.empty() && !outputAllowed(args.output, {args.measured, args.nominal}))
    return kExitBad;
  auto measured = loadChecked(args.measured, LU_AFXS_MASK_ALL, true);
  if (!measured) return kExitBad;
  auto nominal = loadChecked(
      args.nominal, LU_AFXS_MASK_POINTS | LU_AFXS_MASK_SEGMENTS | LU_AFXS_MASK_NORMALS, true);
  if (!nominal) return kExitBad;
  Comparison c = compareFiles(*measured, *nominal);
  if (c.withoutNominal.size() == c.deviations.size()) {
    error(args.nominal, "holds no plane of the measured file; nothing was written");
    return kExitBad;
  }
  bool written =
      args.output.empty() ? appendResults(*measured, c) : writeNewFile(args.output, *measured, c);
  if (!written) return kExitBad;
  printSummary(args, *measured, c, args.output.empty() ? args.measured : args.output);
  return kExitOk;
}

}  // namespace luafxs

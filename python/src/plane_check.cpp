// What makes the data of a plane, or a removal of field groups, give a file
// that validate calls damaged: the lengths and totals that the file format
// relates, checked before the bindings hand data to the library's writers.
#include <numeric>

#include "bindings.h"

namespace luanafpy {

namespace {

struct GroupName {
  uint32_t bit;
  const char* name;
};
constexpr GroupName kGroupNames[] = {
    {LU_AFXS_MASK_POINTS, "points"},     {LU_AFXS_MASK_SEGMENTS, "segments"},
    {LU_AFXS_MASK_NORMALS, "normals"},   {LU_AFXS_MASK_AUX, "aux"},
    {LU_AFXS_MASK_RESPOINTS, "results"}, {LU_AFXS_MASK_DISTANCES, "distances"},
};

std::string planeName(const LuAfxsPlane& p) {
  return "plane " + std::to_string(p.planeId) + " subset " + std::to_string(p.subsetId);
}

// Segments are running point counts: they never decrease and end at n.
std::string segmentsProblem(const std::vector<int32_t>& segments, size_t n) {
  int64_t previous = 0;
  for (size_t i = 0; i < segments.size(); ++i) {
    const int64_t value = segments[i];
    if (value < previous || value > static_cast<int64_t>(n)) {
      return "segments entry " + std::to_string(i) + " is " + std::to_string(value) +
             "; segments are running point counts that never decrease and end at the number "
             "of points (" +
             std::to_string(n) + ")";
    }
    previous = value;
  }
  if (previous != static_cast<int64_t>(n)) {
    return "segments end at " + std::to_string(previous) + " but there are " + std::to_string(n) +
           " points; the segments must cover exactly the points";
  }
  return "";
}

}  // namespace

std::string groupNames(uint32_t mask) {
  std::string out;
  for (const GroupName& g : kGroupNames) {
    if (mask & g.bit) out += std::string(out.empty() ? "" : ", ") + g.name;
  }
  return out.empty() ? "none" : out;
}

std::string planeLengthProblem(const LuAfxsPlane& p, uint32_t mask) {
  const std::string where = planeName(p) + ": ";
  const std::pair<uint32_t, size_t> sizes[] = {
      {LU_AFXS_MASK_POINTS, p.points.size()},       {LU_AFXS_MASK_SEGMENTS, p.segments.size()},
      {LU_AFXS_MASK_NORMALS, p.normals.size()},     {LU_AFXS_MASK_AUX, p.auxCtrlCounts.size()},
      {LU_AFXS_MASK_RESPOINTS, p.resPoints.size()}, {LU_AFXS_MASK_DISTANCES, p.distances.size()},
  };
  for (auto [bit, size] : sizes) {
    if ((mask & bit) && size == 0) {
      return where + groupNames(bit) + " would be written empty, which no reader loads";
    }
  }
  const bool points = (mask & LU_AFXS_MASK_POINTS) != 0;
  const size_t n = points ? p.points.size() : 0;
  const std::pair<uint32_t, const char*> perPoint[] = {{LU_AFXS_MASK_NORMALS, "normals"},
                                                       {LU_AFXS_MASK_RESPOINTS, "res_points"},
                                                       {LU_AFXS_MASK_DISTANCES, "distances"}};
  for (auto [bit, name] : perPoint) {
    const size_t count = bit == LU_AFXS_MASK_NORMALS     ? p.normals.size()
                         : bit == LU_AFXS_MASK_RESPOINTS ? p.resPoints.size()
                                                         : p.distances.size();
    if (points && (mask & bit) && count != n) {
      return where + name + " has " + std::to_string(count) + " entries but there are " +
             std::to_string(n) + " points";
    }
  }
  const uint32_t results = LU_AFXS_MASK_RESPOINTS | LU_AFXS_MASK_DISTANCES;
  if (!points && (mask & results) == results && p.resPoints.size() != p.distances.size()) {
    return where + std::to_string(p.distances.size()) + " distances but " +
           std::to_string(p.resPoints.size()) + " res_points (one distance per result point)";
  }
  if (mask & LU_AFXS_MASK_SEGMENTS) {
    const std::string problem = segmentsProblem(p.segments, n);
    if (!problem.empty()) return where + problem;
  }
  if (mask & LU_AFXS_MASK_AUX) {
    const uint64_t total =
        std::accumulate(p.auxCtrlCounts.begin(), p.auxCtrlCounts.end(), uint64_t{0});
    if (total != p.auxCtrlPos.size()) {
      return where + "aux_ctrl_counts add up to " + std::to_string(total) +
             " but aux_ctrl_pos holds " + std::to_string(p.auxCtrlPos.size()) + " positions";
    }
  }
  return "";
}

std::string removalDamage(const LuAfxsUserDataSet& set, uint32_t mask) {
  for (const LuAfxsUserData* d : set) {
    const LuAfxsPlane& p = d->getPlaneData();
    const uint32_t kept = d->fileState() & kCopiedMask & ~mask;
    if (kept == 0) {
      return planeName(p) + " holds only " + groupNames(d->fileState()) +
             "; removing them would drop the record";
    }
    if ((kept & LU_AFXS_MASK_SEGMENTS) && !(kept & LU_AFXS_MASK_POINTS) && !p.segments.empty() &&
        p.segments.back() != 0) {
      return planeName(p) + ": its segments count " + std::to_string(p.segments.back()) +
             " points, which would be gone; remove segments together with points";
    }
  }
  return "";
}

std::string removableGroups(const LuAfxsUserDataSet& set, uint32_t present) {
  std::string out;
  for (const GroupName& g : kGroupNames) {
    if ((present & g.bit) && removalDamage(set, g.bit).empty()) {
      out += std::string(out.empty() ? "" : ", ") + g.name;
    }
  }
  return out.empty() ? "none" : out;
}

}  // namespace luanafpy

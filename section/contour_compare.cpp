// The deviation of a measured plane from the nominal plane of the same id:
// nearest points on the nominal polylines through a segment grid, signed
// distances along the normals, and the plane's summary.
#include <cmath>

#include <luAnaf/luAfxsSection.h>

#include "section/segment_grid.h"

namespace {

// The pieces of every polyline of the plane: [first, end) point ranges from
// the running counts, clamped to the points held; without segments the
// points are one polyline.
std::vector<lusection::GridPiece> polylinePieces(const LuAfxsPlane& plane) {
  std::vector<lusection::GridPiece> pieces;
  const uint32_t n = static_cast<uint32_t>(plane.points.size());
  std::vector<int32_t> ends = plane.segments;
  if (ends.empty()) ends.push_back(static_cast<int32_t>(n));
  uint32_t first = 0;
  for (int32_t e : ends) {
    uint32_t end = e < 0 ? 0 : std::min(static_cast<uint32_t>(e), n);
    if (end <= first) continue;
    if (end - first == 1) pieces.push_back({first, first});
    for (uint32_t i = first; i + 1 < end; ++i) pieces.push_back({i, i + 1});
    first = end;
  }
  if (first < n) {
    if (n - first == 1) pieces.push_back({first, first});
    for (uint32_t i = first; i + 1 < n; ++i) pieces.push_back({i, i + 1});
  }
  return pieces;
}

LuVec3 unitOrZero(const LuVec3& v) {
  double l = v.length();
  return l > 0 ? v * (1.0 / l) : LuVec3{0, 0, 0};
}

void summarise(LuAfxsPlaneDeviation& out) {
  out.count = out.distances.size();
  if (out.count == 0) return;
  double sum = 0, sum2 = 0, worst = -1;
  out.min = out.max = out.distances[0];
  for (size_t i = 0; i < out.distances.size(); ++i) {
    double d = out.distances[i];
    out.min = std::min(out.min, d);
    out.max = std::max(out.max, d);
    sum += d;
    sum2 += d * d;
    if (std::fabs(d) > worst) {
      worst = std::fabs(d);
      out.worstIndex = static_cast<uint32_t>(i);
    }
  }
  out.mean = sum / static_cast<double>(out.count);
  out.rms = std::sqrt(sum2 / static_cast<double>(out.count));
}

}  // namespace

bool luAfxsComparePlane(const LuAfxsPlane& measured, const LuAfxsPlane& nominal,
                        LuAfxsPlaneDeviation& out) {
  out = LuAfxsPlaneDeviation{};
  out.planeId = measured.planeId;
  out.subsetId = measured.subsetId;
  if (nominal.points.empty()) return false;
  lusection::SegmentGrid grid(nominal.points, polylinePieces(nominal));
  const bool measuredNormals = measured.normals.size() == measured.points.size();
  const bool nominalNormals = nominal.normals.size() == nominal.points.size();
  out.resultPoints.reserve(measured.points.size());
  out.distances.reserve(measured.points.size());
  lusection::SearchHint hint;
  for (size_t i = 0; i < measured.points.size(); ++i) {
    const LuVec3& q = measured.points[i];
    lusection::NearestPiece near = grid.nearest(q, hint);
    LuVec3 n{0, 0, 0};
    if (measuredNormals) {
      n = unitOrZero(measured.normals[i]);
    } else if (nominalNormals) {
      const lusection::GridPiece& piece = grid.pieces()[near.piece];
      n = unitOrZero(nominal.normals[piece.a] * (1 - near.t) + nominal.normals[piece.b] * near.t);
    }
    LuVec3 d = q - near.point;
    out.resultPoints.push_back(near.point);
    out.distances.push_back(measuredNormals || nominalNormals ? d.dot(n) : d.length());
  }
  summarise(out);
  return true;
}

// The first stage of a blend: the stretches where P runs alongside Q, and the
// coupling of their points with Q.
#include <cstdint>
#include <vector>

#include <luAnaf/luAfxsDataSet.h>

#include "blend/blend_internal.h"

// Empties the projection map, the stretch lists and the Q splice lists, flags
// every Q point unused, builds and trims the stretches of every P segment
// against Q's segments, and couples each surviving stretch. The direction of
// a stretch is taken at its first P point that has a Q point within reach
// (contour points for the search, result points for the direction); a
// stretch without one keeps the direction of the stretch before it (false
// before the first), by design. True when at least one stretch survives.
bool LuAfxsUserDataSet::BuildProjectedPoints(const LuAfxsPlane* P, const LuAfxsPlane* Q) {
  m_MapPointIndx2PrjctdPoint.clear();
  m_VectResultedSegmentsStart.clear();
  m_VectResultedSegmentsEnd.clear();
  m_VectResultedSegmentsIndx.clear();
  m_VectQUsedSegmentsStart.clear();
  m_VectQUsedSegmentsEnd.clear();
  m_VectQUsedSegments_P_Insert_Index.clear();
  m_VectQUsedSegments_P_Insert_SegIndex.clear();

  m_BlendedQPointsVector.clear();
  m_BlendedQPointsVector.reserve(Q->points.size());
  m_BlendedQPointsVector.assign(Q->points.size(), false);

  std::vector<unsigned int> qStarts;
  std::vector<unsigned int> qEnds;
  std::vector<unsigned int> pStarts;
  std::vector<unsigned int> pEnds;
  GetPlaneSegments(Q, qStarts, qEnds);
  GetPlaneSegments(P, pStarts, pEnds);

  LuVec3 normal = lublend::headerNormal(m_XSHeader);
  for (size_t i = 0; i < pStarts.size(); ++i) {
    BuildMapIntersection(P, Q, normal, qStarts, qEnds, pStarts[i], pEnds[i]);
  }
  RemoveNonLegitSegments(P, Q, qStarts, qEnds);
  if (m_VectResultedSegmentsStart.empty()) return false;

  // The first P point of the stretch that has a Q point within reach.
  auto firstReachingPoint = [&](uint32_t start, uint32_t end, uint32_t qSeg, uint32_t& pIndex,
                                uint32_t& qIndex) {
    double dist2 = 0.0;
    for (uint64_t i = start; i <= end; ++i) {
      // Past P's points no search can succeed.
      if (!lublend::readable(i, P->points.size())) return false;
      if (FindPPointNearestQPoint(P, Q, normal, qStarts, qEnds, qSeg, static_cast<uint32_t>(i),
                                  qIndex, dist2, false)) {
        pIndex = static_cast<uint32_t>(i);
        return true;
      }
    }
    return false;
  };

  bool sameDirection = false;
  for (size_t k = 0; k < m_VectResultedSegmentsStart.size(); ++k) {
    const uint32_t start = m_VectResultedSegmentsStart[k];
    const uint32_t end = m_VectResultedSegmentsEnd[k];
    const uint32_t qSeg = m_VectResultedSegmentsIndx[k];
    uint32_t pIndex = 0;
    uint32_t qIndex = 0;
    if (firstReachingPoint(start, end, qSeg, pIndex, qIndex)) {
      sameDirection = CheckIsSameDirection(P->resPoints, Q->resPoints, pIndex, qIndex);
    }
    MapBlendPointsToCouplePoints(P, Q, normal, qStarts, qEnds, start, end, qSeg, sameDirection);
  }
  return true;
}

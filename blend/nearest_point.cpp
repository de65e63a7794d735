// The nearest-point search of one P point within one Q segment.
#include <cstdint>
#include <vector>

#include <luAnaf/luAfxsDataSet.h>

#include "blend/blend_internal.h"

// Finds the point of Q segment qSeg nearest to P point pIndex, on the result
// points or on the contour points, by a plain ascending scan (strict
// comparison: the lowest index wins a tie). Succeeds, and only then sets the
// outputs, when the best squared distance is at most 2.0. `normal` is not
// used. Reads are bounded: a segment number past the range lists, a P index
// past P's list, or Q indices past Q's list (which are skipped) never read
// outside a vector; with nothing readable the search fails.
bool LuAfxsUserDataSet::FindPPointNearestQPoint(const LuAfxsPlane* P, const LuAfxsPlane* Q,
                                                LuVec3& /*normal*/,
                                                std::vector<unsigned int>& qStarts,
                                                std::vector<unsigned int>& qEnds, unsigned int qSeg,
                                                unsigned int pIndex, unsigned int& qIndex,
                                                double& dist2, bool useResPoints) {
  if (!lublend::readable(qSeg, qStarts.size()) || !lublend::readable(qSeg, qEnds.size())) {
    return false;
  }
  const uint32_t first = qStarts[qSeg];
  const uint32_t last = qEnds[qSeg];
  if (first > last) return false;

  const std::vector<LuVec3>& pPoints = useResPoints ? P->resPoints : P->points;
  const std::vector<LuVec3>& qPoints = useResPoints ? Q->resPoints : Q->points;
  if (!lublend::readable(pIndex, pPoints.size())) return false;
  const LuVec3& X = pPoints[pIndex];

  uint32_t best = 0;
  double bestDist2 = 0.0;
  if (!lublend::scanNearest(qPoints, first, last, X, best, bestDist2)) return false;
  if (!(bestDist2 <= lublend::kNearestLimit)) return false;
  qIndex = best;
  dist2 = bestDist2;
  return true;
}

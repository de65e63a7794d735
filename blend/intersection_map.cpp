// The blend stretches of one P segment: where it runs alongside a Q segment.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include <luAnaf/luAfxsDataSet.h>

#include "blend/blend_internal.h"

namespace {

// A P point touches a Q segment below this squared distance (strict).
constexpr double kTouchLimit = 2.0;
// A stretch spans at least four P points: last - first >= 3 (unsigned).
constexpr uint32_t kMinStretchSpan = 3;

// The box of pts[from, to) (end exclusive, cut at the end of the list): the
// box of a copy of that range. Finite coordinates are folded into their two
// corners without copying the range (the same box: its bounds are the
// per-axis minimum and maximum); a range with NaN or infinite coordinates is
// copied and handed to the box as it stands.
LuBBox boxOfRange(const std::vector<LuVec3>& pts, uint32_t from, uint32_t to) {
  const uint64_t end = std::min<uint64_t>(to, pts.size());
  if (from >= end) return LuBBox();
  LuVec3 lo = pts[from];
  LuVec3 hi = pts[from];
  bool finite = true;
  for (uint64_t i = from; i < end; ++i) {
    const LuVec3& p = pts[i];
    finite = finite && std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z);
    lo = {std::min(lo.x, p.x), std::min(lo.y, p.y), std::min(lo.z, p.z)};
    hi = {std::max(hi.x, p.x), std::max(hi.y, p.y), std::max(hi.z, p.z)};
  }
  if (finite) return LuBBox(std::vector<LuVec3>{lo, hi});
  return LuBBox(std::vector<LuVec3>(pts.begin() + from, pts.begin() + static_cast<ptrdiff_t>(end)));
}

// The pass test of one P point against Q segment j: inside the overlap box of
// the two segments, or else within reach of some Q result point of
// [qFirst, qEnd). The reach test is the plain "any point closer than 2.0",
// answered by a contour hierarchy built on first need (its answers equal the
// ascending scan's). A P index past P's result points does not pass.
class TouchTest {
public:
  TouchTest(const std::vector<LuVec3>& pRes, const std::vector<LuVec3>& qRes, uint32_t qFirst,
            uint32_t qEnd, const LuBBox& overlap)
      : m_pRes(pRes), m_qRes(qRes), m_qFirst(qFirst), m_qEnd(qEnd), m_overlap(overlap) {}

  bool passes(uint32_t i) {
    if (!lublend::readable(i, m_pRes.size())) return false;
    const LuVec3& X = m_pRes[i];
    if (m_overlap.inside(X)) return true;
    if (m_qFirst >= m_qEnd) return false;
    if (!m_reach) m_reach = std::make_unique<lublend::ContourIndex>(m_qRes, m_qFirst, m_qEnd - 1);
    return m_reach->anyCloserThan(X, kTouchLimit);
  }

private:
  const std::vector<LuVec3>& m_pRes;
  const std::vector<LuVec3>& m_qRes;
  uint32_t m_qFirst;
  uint32_t m_qEnd;
  LuBBox m_overlap;
  std::unique_ptr<lublend::ContourIndex> m_reach;
};

// Walks k from 0 to n - 1 (n = pLast - pFirst) with a front index pFirst + k
// and a back index pLast - k: the first passing front index is the stretch's
// first, the first passing back index its last. The two walks do not depend
// on each other (the joint walk only stops once both are found), so each runs
// on its own and stops at its own find; indices past P's result points never
// pass and are not visited. Requires pFirst < pLast.
bool findStretchEnds(TouchTest& touch, uint32_t pFirst, uint32_t pLast, size_t pCount,
                     uint32_t& first, uint32_t& last) {
  if (pCount == 0 || pFirst >= pCount) return false;
  const uint32_t lastReadable = static_cast<uint32_t>(pCount - 1);
  bool haveFirst = false;
  const uint32_t frontEnd = std::min(pLast - 1u, lastReadable);
  for (uint64_t i = pFirst; i <= frontEnd; ++i) {
    if (touch.passes(static_cast<uint32_t>(i))) {
      first = static_cast<uint32_t>(i);
      haveFirst = true;
      break;
    }
  }
  if (!haveFirst) return false;
  const uint32_t backStart = std::min(pLast, lastReadable);
  for (uint64_t i = backStart; i >= static_cast<uint64_t>(pFirst) + 1u; --i) {
    if (touch.passes(static_cast<uint32_t>(i))) {
      last = static_cast<uint32_t>(i);
      return true;
    }
  }
  return false;
}

}  // namespace

// Appends the stretches of the P segment pFirst..pLast, one for each Q
// segment whose result points it runs alongside; they may overlap in P.
// Works on result points. The last point of the P segment is left out of its
// box, and the end of each Q segment out of Q's, by design. Always true;
// `normal` is not used. A stretch whose last index lies before its first
// passes the length test (the unsigned difference wraps), as intended: the
// trimming erases it. Ranges reaching past the result points are cut at the
// end of the list; segment numbers past either range list are not visited.
bool LuAfxsUserDataSet::BuildMapIntersection(const LuAfxsPlane* P, const LuAfxsPlane* Q,
                                             LuVec3& /*normal*/, std::vector<unsigned int>& qStarts,
                                             std::vector<unsigned int>& qEnds, unsigned int pFirst,
                                             unsigned int pLast) {
  const LuBBox BP = boxOfRange(P->resPoints, pFirst, pLast);
  const size_t qSegments = std::min(qStarts.size(), qEnds.size());
  for (size_t j = 0; j < qSegments; ++j) {
    const LuBBox BQ = boxOfRange(Q->resPoints, qStarts[j], qEnds[j]);
    if (!BP.intersect(BQ)) continue;
    const LuBBox BX = BP.intersection(BQ);
    if (pFirst == pLast) continue;
    // From here pFirst < pLast: a non-empty box BP needs a point before pLast.

    TouchTest touch(P->resPoints, Q->resPoints, qStarts[j], qEnds[j], BX);
    uint32_t first = 0;
    uint32_t last = 0;
    if (!findStretchEnds(touch, pFirst, pLast, P->resPoints.size(), first, last)) continue;
    if (last - first < kMinStretchSpan) continue;

    m_VectResultedSegmentsStart.push_back(first);
    m_VectResultedSegmentsEnd.push_back(last);
    m_VectResultedSegmentsIndx.push_back(static_cast<uint32_t>(j));
  }
  return true;
}

// The categories of the two ends of every blend stretch: whether P's contour,
// Q's contour, both or neither begin or end there.
#include <algorithm>
#include <cstdint>
#include <vector>

#include <luAnaf/luAfxsDataSet.h>

#include "blend/blend_internal.h"

namespace {

// Category values: which contour is at a boundary at a stretch end.
constexpr uint32_t kQAtBoundary = 1;     // Q begins or ends here, P runs on
constexpr uint32_t kBothAtBoundary = 2;  // both begin or end here
constexpr uint32_t kPAtBoundary = 3;     // P begins or ends here, Q runs on
constexpr uint32_t kNoBoundary = 4;      // neither

// Boundary tolerances, in points. The end of P at a stretch's last point uses
// 3, every other test 10: deliberate.
constexpr uint32_t kTolerance = 10;
constexpr uint32_t kPEndTolerance = 3;

uint32_t categoryOf(bool pAt, bool qAt) {
  if (qAt) return pAt ? kBothAtBoundary : kQAtBoundary;
  return pAt ? kPAtBoundary : kNoBoundary;
}

}  // namespace

// True for the first segment that holds index and where index lies within
// `tolerance` points of its start (unsigned 32-bit arithmetic).
bool LuAfxsUserDataSet::IsPointIsStartSegment(const LuAfxsPlane* plane, unsigned int index,
                                              unsigned int tolerance) {
  std::vector<unsigned int> starts;
  std::vector<unsigned int> ends;
  GetPlaneSegments(plane, starts, ends);
  for (size_t i = 0; i < starts.size(); ++i) {
    if (starts[i] <= index && index <= ends[i] && index <= starts[i] + tolerance) return true;
  }
  return false;
}

// True for the first segment that holds index and where index lies within
// `tolerance` points of its end. The subtraction is unsigned 32-bit: a
// segment whose last index is below the tolerance wraps and never reports an
// end point, by design.
bool LuAfxsUserDataSet::IsPointIsEndSegment(const LuAfxsPlane* plane, unsigned int index,
                                            unsigned int tolerance) {
  std::vector<unsigned int> starts;
  std::vector<unsigned int> ends;
  GetPlaneSegments(plane, starts, ends);
  for (size_t i = 0; i < starts.size(); ++i) {
    if (starts[i] <= index && index <= ends[i] && ends[i] - tolerance <= index) return true;
  }
  return false;
}

// Fills m_MapPointIndx2Category with the categories of both ends of every
// stretch, keyed by the stretch's first P index (an earlier entry is kept).
// Running against P's direction, Q's start corresponds to P's end, hence the
// swap of the Q tests when the contours run opposite ways. Always false
// (intended; callers ignore it).
// A stretch end without an entry in the projection map has no Q point: its Q
// side counts as not at a boundary (no direction test is made and nothing is
// read), so that end is category 3 when P is at a boundary there, else 4.
bool LuAfxsUserDataSet::CategorizBlendPoints(const LuAfxsPlane* P, const LuAfxsPlane* Q) {
  m_MapPointIndx2Category.clear();
  if (m_VectResultedSegmentsStart.empty()) return false;

  // The Q point coupled with P point i, when there is one.
  auto coupledQ = [](uint32_t i, uint32_t& qIndex) {
    const auto entry = m_MapPointIndx2PrjctdPoint.find(static_cast<int32_t>(i));
    if (entry == m_MapPointIndx2PrjctdPoint.end()) return false;
    qIndex = entry->second.indx;
    return true;
  };

  auto startCategory = [&](uint32_t s) {
    const bool pAt = IsPointIsStartSegment(P, s, kTolerance);
    uint32_t qs = 0;
    bool qAt = false;
    if (coupledQ(s, qs)) {
      const bool same = CheckIsSameDirection(P->resPoints, Q->resPoints, s, qs);
      qAt =
          same ? IsPointIsStartSegment(Q, qs, kTolerance) : IsPointIsEndSegment(Q, qs, kTolerance);
    }
    return categoryOf(pAt, qAt);
  };

  auto endCategory = [&](uint32_t e) {
    const bool pAt = IsPointIsEndSegment(P, e, kPEndTolerance);
    uint32_t qe = 0;
    bool qAt = false;
    if (coupledQ(e, qe)) {
      const bool same = CheckIsSameDirection(P->resPoints, Q->resPoints, e, qe);
      qAt =
          same ? IsPointIsEndSegment(Q, qe, kTolerance) : IsPointIsStartSegment(Q, qe, kTolerance);
    }
    return categoryOf(pAt, qAt);
  };

  const size_t stretches =
      std::min(m_VectResultedSegmentsStart.size(), m_VectResultedSegmentsEnd.size());
  for (size_t k = 0; k < stretches; ++k) {
    const uint32_t s = m_VectResultedSegmentsStart[k];
    const uint32_t e = m_VectResultedSegmentsEnd[k];
    const UINT_UINT_CATEGOR categories{startCategory(s), endCategory(e)};
    m_MapPointIndx2Category.emplace(s, categories);
  }
  return false;
}

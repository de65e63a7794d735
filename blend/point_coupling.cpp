// The coupling of the P points of one blend stretch with Q: each P point is
// paired with its nearest Q point and replaced, in the projection map, by its
// foot point on the Q edge that runs on from there.
#include <algorithm>
#include <cstdint>
#include <iterator>
#include <memory>
#include <vector>

#include <luAnaf/luAfxsDataSet.h>

#include "blend/blend_internal.h"

namespace {

// A P point is coupled below this squared distance (strict); the windowed
// search also ends at a best of at most this value.
constexpr double kCoupleLimit = 2.0;
// A new best below this squared distance (strict) resets the window.
constexpr double kCoincidence = 0.01;
// Window half-width: min(r / 10 + kWindowBase, kWindowMax) points.
constexpr uint32_t kWindowBase = 5;
constexpr uint32_t kWindowMax = 25;

// The nearest-point searches of one stretch within Q segment [a, b]: the
// windowed scan, and the full-segment search, which a contour hierarchy
// answers once it is needed (built on the first fall-back; its answers equal
// the ascending scan's).
class SegmentSearch {
public:
  SegmentSearch(const std::vector<LuVec3>& qPoints, uint32_t a, uint32_t b)
      : m_q(qPoints), m_a(a), m_b(b) {}

  // Plain ascending scan of [lo, hi]; index kNoIndex and the start value when
  // no point beats the start (or nothing is readable).
  void window(const LuVec3& X, uint32_t lo, uint32_t hi, uint32_t& index, double& d2) const {
    index = lublend::kNoIndex;
    d2 = lublend::kFarthest;
    lublend::scanNearest(m_q, lo, hi, X, index, d2);
  }

  // The nearest point of the whole segment, as window(X, a, b) would find it.
  void whole(const LuVec3& X, uint32_t& index, double& d2) {
    index = lublend::kNoIndex;
    d2 = lublend::kFarthest;
    if (m_a > m_b) return;
    if (!m_index) m_index = std::make_unique<lublend::ContourIndex>(m_q, m_a, m_b);
    m_index->nearest(X, index, d2);
  }

private:
  const std::vector<LuVec3>& m_q;
  uint32_t m_a;
  uint32_t m_b;
  std::unique_ptr<lublend::ContourIndex> m_index;
};

// The Q point that, with h, makes the edge a P point is projected onto: the
// next point along P's direction. Same direction: h + 1, or h - 1 at Q's last
// point; opposite: h - 1, or 1 at h = 0. It may lie outside the segment.
uint32_t neighbourOf(uint32_t h, uint32_t nQ, bool sameDirection) {
  if (sameDirection) return h < nQ - 1u ? h + 1u : h - 1u;
  return h == 0 ? 1u : h - 1u;
}

}  // namespace

// Couples P points pFirst..pLast (contour points) with Q segment qSeg. The
// search follows Q along P: a window of min(r / 10 + 5, 25) points either
// side of the last nearest Q point h, r counting P points since the last
// near-coincidence (a new best below 0.01) or fall-back to the whole segment.
// The window is clamped to the segment's end but only to 0 below, so it may
// reach into the segment before, by design. A point whose nearest Q point is
// strictly closer than 2.0 gets the entry i -> {foot point, h} (an entry from
// an earlier stretch is kept) and flags Q point h as used. Always true.
// Bounds, where the callers never go: a segment number past the range lists
// couples nothing; Q indices past Q's points are skipped by the scans; the
// walk ends at the end of P's points; a neighbour index past Q's points (a
// one-point Q) projects onto the nearest point itself (B = A, so t = 0).
bool LuAfxsUserDataSet::MapBlendPointsToCouplePoints(const LuAfxsPlane* P, const LuAfxsPlane* Q,
                                                     LuVec3& /*normal*/,
                                                     std::vector<unsigned int>& qStarts,
                                                     std::vector<unsigned int>& qEnds,
                                                     unsigned int pFirst, unsigned int pLast,
                                                     unsigned int qSeg, bool sameDirection) {
  if (!lublend::readable(qSeg, qStarts.size()) || !lublend::readable(qSeg, qEnds.size())) {
    return true;
  }
  const uint32_t a = qStarts[qSeg];
  const uint32_t b = qEnds[qSeg];
  const std::vector<LuVec3>& qPoints = Q->points;
  const std::vector<LuVec3>& pPoints = P->points;
  const uint32_t nQ = static_cast<uint32_t>(qPoints.size());
  const LuVec3 N = lublend::headerNormal(m_XSHeader);
  SegmentSearch search(qPoints, a, b);

  // The hint: the Q point of the segment nearest to the stretch's first point.
  uint32_t h = lublend::kNoIndex;
  double hintDist2 = 0.0;
  if (lublend::readable(pFirst, pPoints.size())) search.window(pPoints[pFirst], a, b, h, hintDist2);

  if (pFirst > pLast) return true;

  auto& projected = m_MapPointIndx2PrjctdPoint;
  auto cursor = projected.lower_bound(static_cast<int32_t>(pFirst));
  auto couple = [&](uint32_t i, const LuVec3& X) {
    uint32_t nb = neighbourOf(h, nQ, sameDirection);
    if (!lublend::readable(nb, qPoints.size())) nb = h;
    const LuVec3& A = qPoints[h];
    const LuVec3& B = qPoints[nb];
    const LuVec3 T = A + N;
    double t = -1.0;
    double u = 0.0;
    double v = 0.0;
    luMathPointTrianglePosition(X, A, B, T, t, u, v);
    const LuVec3 d = B - A;
    const LuVec3 projection{d.x * t + A.x, d.y * t + A.y, d.z * t + A.z};
    // Points come in ascending order: a cursor keeps each insertion at
    // constant cost. An entry made by an earlier stretch is kept.
    const int32_t key = static_cast<int32_t>(i);
    while (cursor != projected.end() && cursor->first < key) ++cursor;
    if (cursor == projected.end() || cursor->first != key) {
      cursor = std::next(projected.emplace_hint(cursor, key, Vec3PNT_INDX{projection, h}));
    }
    if (lublend::readable(h, m_BlendedQPointsVector.size())) m_BlendedQPointsVector[h] = true;
  };

  uint32_t r = 0;
  const uint64_t walkEnd = std::min<uint64_t>(pLast, pPoints.empty() ? 0 : pPoints.size() - 1);
  for (uint64_t i = pFirst; i <= walkEnd && lublend::readable(i, pPoints.size()); ++i) {
    const LuVec3& X = pPoints[i];
    ++r;
    const uint32_t w = std::min(r / 10u + kWindowBase, kWindowMax);
    const uint32_t lo = h > w ? h - w : 0u;
    const uint32_t hi = std::min(b, h + w);  // h + w wraps for h = kNoIndex, as intended

    double best = lublend::kFarthest;
    bool settled = false;
    if (lo <= hi) {
      search.window(X, lo, hi, h, best);
      if (best < kCoincidence) r = 0;
      settled = best <= kCoupleLimit;
    }
    if (!settled) {
      search.whole(X, h, best);
      r = 0;
    }
    if (best < kCoupleLimit && lublend::readable(h, qPoints.size())) {
      couple(static_cast<uint32_t>(i), X);
    }
  }
  return true;
}

// The plain nearest-point scan and the contour hierarchy that answers the
// same questions without visiting every point.
#include <algorithm>
#include <cmath>
#include <vector>

#include "blend/blend_internal.h"

namespace lublend {

namespace {

bool finitePoint(const LuVec3& p) {
  return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z);
}

// The candidate rule of the ascending scan, for a search that may visit the
// points out of order: a smaller distance wins, and of two equal distances the
// lower index (which the ascending scan would have met first). Before any
// point is taken, only a distance below the start value counts.
bool beats(double d2, uint32_t index, bool found, double best, uint32_t bestIndex) {
  if (!found) return d2 < kFarthest;
  return d2 < best || (d2 == best && index < bestIndex);
}

}  // namespace

bool scanNearest(const std::vector<LuVec3>& pts, uint32_t first, uint32_t last, const LuVec3& x,
                 uint32_t& index, double& d2) {
  if (first > last || !readable(first, pts.size())) return false;
  const uint32_t end = clampLast(last, pts.size());
  double best = kFarthest;
  uint32_t bestIndex = kNoIndex;
  for (uint64_t i = first; i <= end; ++i) {
    const double d = squaredDistance(pts[i], x);
    if (d < best) {
      best = d;
      bestIndex = static_cast<uint32_t>(i);
    }
  }
  if (bestIndex == kNoIndex) return false;
  index = bestIndex;
  d2 = best;
  return true;
}

ContourIndex::ContourIndex(const std::vector<LuVec3>& pts, uint32_t first, uint32_t last)
    : m_pts(pts), m_first(first) {
  if (first > last || !readable(first, pts.size())) return;
  m_count = clampLast(last, pts.size()) - first + 1;
  for (uint32_t k = 0; k < m_count; ++k) {
    if (!finitePoint(pts[m_first + k])) {
      // Boxes over NaN or infinite coordinates bound nothing; such a contour
      // is answered by the plain scan, which is exact by definition.
      m_plainScan = true;
      return;
    }
  }
  const size_t leaves = (static_cast<size_t>(m_count) + kLeafSize - 1) / kLeafSize;
  m_leafBase = 1;
  while (m_leafBase < leaves) m_leafBase <<= 1;
  m_boxes.resize(2 * m_leafBase);
  m_used.assign(2 * m_leafBase, 0);
  const uint64_t end = static_cast<uint64_t>(m_first) + m_count;
  for (size_t leaf = 0; leaf < leaves; ++leaf) {
    const uint64_t from = leafFirst(leaf);
    const uint64_t to = std::min<uint64_t>(from + kLeafSize, end);
    Box box{pts[from], pts[from]};
    for (uint64_t i = from + 1; i < to; ++i) {
      const LuVec3& p = pts[i];
      box.lo = {std::min(box.lo.x, p.x), std::min(box.lo.y, p.y), std::min(box.lo.z, p.z)};
      box.hi = {std::max(box.hi.x, p.x), std::max(box.hi.y, p.y), std::max(box.hi.z, p.z)};
    }
    m_boxes[m_leafBase + leaf] = box;
    m_used[m_leafBase + leaf] = 1;
  }
  for (size_t n = m_leafBase - 1; n >= 1; --n) {
    const size_t l = 2 * n;
    const size_t r = l + 1;
    if (!m_used[l]) continue;  // a left child is used whenever its right sibling is
    Box box = m_boxes[l];
    if (m_used[r]) {
      const Box& o = m_boxes[r];
      box.lo = {std::min(box.lo.x, o.lo.x), std::min(box.lo.y, o.lo.y), std::min(box.lo.z, o.lo.z)};
      box.hi = {std::max(box.hi.x, o.hi.x), std::max(box.hi.y, o.hi.y), std::max(box.hi.z, o.hi.z)};
    }
    m_boxes[n] = box;
    m_used[n] = 1;
  }
}

// A lower bound of the squared distance from x to every point in the box,
// computed with the operations of squaredDistance on per-axis gaps that are
// never larger than the point's own differences. Rounding is monotonic, so no
// point of the box can have a computed distance below this bound.
double ContourIndex::lowerBound(const Box& box, const LuVec3& x) const {
  auto gap = [](double v, double lo, double hi) {
    if (v < lo) return lo - v;
    if (v > hi) return v - hi;
    return 0.0;
  };
  const double gx = gap(x.x, box.lo.x, box.hi.x);
  const double gy = gap(x.y, box.lo.y, box.hi.y);
  const double gz = gap(x.z, box.lo.z, box.hi.z);
  return gx * gx + gy * gy + gz * gz;
}

bool ContourIndex::nearest(const LuVec3& x, uint32_t& index, double& d2) const {
  if (m_count == 0) return false;
  if (m_plainScan) return scanNearest(m_pts, m_first, m_first + m_count - 1, x, index, d2);
  // Every distance from a non-finite point is infinite or NaN: none beats the start.
  if (!finitePoint(x)) return false;

  bool found = false;
  double best = kFarthest;
  uint32_t bestIndex = kNoIndex;
  const uint64_t end = static_cast<uint64_t>(m_first) + m_count;
  std::vector<size_t> stack;
  stack.reserve(64);
  stack.push_back(1);
  while (!stack.empty()) {
    const size_t n = stack.back();
    stack.pop_back();
    const double bound = lowerBound(m_boxes[n], x);
    // Hopeless: every point of the box is farther than the best (or than the
    // start value). An equal bound is still searched, for a lower index.
    const bool hopeless = found ? !(bound <= best) : !(bound < kFarthest);
    if (hopeless) continue;
    if (n >= m_leafBase) {
      const uint64_t from = leafFirst(n - m_leafBase);
      if (found && bound == best && from > bestIndex) continue;  // only a higher index could tie
      const uint64_t to = std::min<uint64_t>(from + kLeafSize, end);
      for (uint64_t i = from; i < to; ++i) {
        const double d = squaredDistance(m_pts[i], x);
        if (beats(d, static_cast<uint32_t>(i), found, best, bestIndex)) {
          found = true;
          best = d;
          bestIndex = static_cast<uint32_t>(i);
        }
      }
      continue;
    }
    const size_t l = 2 * n;
    const size_t r = l + 1;
    if (!m_used[r]) {
      stack.push_back(l);
      continue;
    }
    // The nearer child is searched first (pushed last); on equal bounds the
    // left one, whose indices are lower.
    if (lowerBound(m_boxes[r], x) < lowerBound(m_boxes[l], x)) {
      stack.push_back(l);
      stack.push_back(r);
    } else {
      stack.push_back(r);
      stack.push_back(l);
    }
  }
  if (!found) return false;
  index = bestIndex;
  d2 = best;
  return true;
}

bool ContourIndex::anyCloserThan(const LuVec3& x, double limit2) const {
  if (m_count == 0) return false;
  const uint64_t end = static_cast<uint64_t>(m_first) + m_count;
  if (m_plainScan) {
    for (uint64_t i = m_first; i < end; ++i) {
      if (squaredDistance(m_pts[i], x) < limit2) return true;
    }
    return false;
  }
  if (!finitePoint(x)) return false;
  std::vector<size_t> stack;
  stack.reserve(64);
  stack.push_back(1);
  while (!stack.empty()) {
    const size_t n = stack.back();
    stack.pop_back();
    if (!(lowerBound(m_boxes[n], x) < limit2)) continue;
    if (n >= m_leafBase) {
      const uint64_t from = leafFirst(n - m_leafBase);
      const uint64_t to = std::min<uint64_t>(from + kLeafSize, end);
      for (uint64_t i = from; i < to; ++i) {
        if (squaredDistance(m_pts[i], x) < limit2) return true;
      }
      continue;
    }
    if (m_used[2 * n + 1]) stack.push_back(2 * n + 1);
    stack.push_back(2 * n);
  }
  return false;
}

bool SegmentNearest::find(uint32_t qSeg, uint32_t pIndex, uint32_t& qIndex, double& d2) {
  if (!readable(qSeg, m_qStarts.size()) || !readable(qSeg, m_qEnds.size())) return false;
  const uint32_t first = m_qStarts[qSeg];
  const uint32_t last = m_qEnds[qSeg];
  if (first > last || !readable(pIndex, m_p.size())) return false;
  const LuVec3& X = m_p[pIndex];

  Segment& segment = m_segments[qSeg];
  uint32_t best = 0;
  double bestDist2 = 0.0;
  bool found = false;
  if (segment.scans < kScansBeforeIndex) {
    ++segment.scans;
    found = scanNearest(m_q, first, last, X, best, bestDist2);
  } else {
    if (!segment.index) segment.index = std::make_unique<ContourIndex>(m_q, first, last);
    found = segment.index->nearest(X, best, bestDist2);
  }
  if (!found || !(bestDist2 <= kNearestLimit)) return false;
  qIndex = best;
  d2 = bestDist2;
  return true;
}

}  // namespace lublend

// The uniform grid of polyline pieces: cells about as large as a mean piece,
// each piece listed in every cell its box touches, stored as one flat array
// per cell range. A query searches rings of cells around the query's cell
// until no unvisited cell can be nearer than the best piece found.
#include "section/segment_grid.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace lusection {

namespace {

// At most this many cells per piece (plus a few), so memory stays linear.
constexpr double kCellsPerPiece = 4;

}  // namespace

SegmentGrid::SegmentGrid(const std::vector<LuVec3>& points, std::vector<GridPiece> pieces)
    : m_points(points), m_pieces(std::move(pieces)) {
  LuVec3 lo{std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity(),
            std::numeric_limits<double>::infinity()};
  LuVec3 hi = lo * -1;
  double total = 0;
  for (const GridPiece& p : m_pieces) {
    for (uint32_t i : {p.a, p.b})
      for (int k = 0; k < 3; ++k) {
        lo[k] = std::min(lo[k], points[i][k]);
        hi[k] = std::max(hi[k], points[i][k]);
      }
    total += (points[p.b] - points[p.a]).length();
  }
  if (m_pieces.empty()) lo = hi = {0, 0, 0};
  m_min = lo;
  double extent = std::max({hi.x - lo.x, hi.y - lo.y, hi.z - lo.z});
  double cell = m_pieces.empty() ? 1 : total / static_cast<double>(m_pieces.size());
  if (!(cell > extent * 1e-9)) cell = extent > 0 ? extent * 1e-3 : 1;
  const double budget = kCellsPerPiece * static_cast<double>(m_pieces.size()) + 64;
  for (;;) {
    double cells = 1;
    for (int k = 0; k < 3; ++k) cells *= std::floor((hi[k] - lo[k]) / cell) + 1;
    if (cells <= budget) break;
    cell *= 1.5;
  }
  m_cell = cell;
  for (int k = 0; k < 3; ++k) m_dims[k] = static_cast<int64_t>(std::floor((hi[k] - lo[k]) / cell)) + 1;
  const size_t cellCount = static_cast<size_t>(m_dims[0] * m_dims[1] * m_dims[2]);
  // Two passes: count per cell, then fill.
  m_cellStart.assign(cellCount + 1, 0);
  for (int pass = 0; pass < 2; ++pass) {
    std::vector<uint32_t> fill;
    if (pass == 1) {
      for (size_t i = 0; i < cellCount; ++i) m_cellStart[i + 1] += m_cellStart[i];
      m_cellPieces.resize(m_cellStart[cellCount]);
      fill.assign(m_cellStart.begin(), m_cellStart.end() - 1);
    }
    for (uint32_t i = 0; i < m_pieces.size(); ++i) {
      int64_t ca[3], cb[3];
      cellOf(points[m_pieces[i].a], ca);
      cellOf(points[m_pieces[i].b], cb);
      for (int64_t x = std::min(ca[0], cb[0]); x <= std::max(ca[0], cb[0]); ++x)
        for (int64_t y = std::min(ca[1], cb[1]); y <= std::max(ca[1], cb[1]); ++y)
          for (int64_t z = std::min(ca[2], cb[2]); z <= std::max(ca[2], cb[2]); ++z) {
            size_t c = static_cast<size_t>((z * m_dims[1] + y) * m_dims[0] + x);
            if (pass == 0)
              ++m_cellStart[c + 1];
            else
              m_cellPieces[fill[c]++] = i;
          }
    }
  }
}

void SegmentGrid::cellOf(const LuVec3& p, int64_t c[3]) const {
  for (int k = 0; k < 3; ++k) {
    double f = std::floor((p[k] - m_min[k]) / m_cell);
    if (!(f >= 0)) f = 0;  // NaN too
    c[k] = std::min(static_cast<int64_t>(std::min(f, 9.0e15)), m_dims[k] - 1);
  }
}

void SegmentGrid::consider(uint32_t piece, const LuVec3& q, NearestPiece& best) const {
  const LuVec3 &a = m_points[m_pieces[piece].a], &b = m_points[m_pieces[piece].b];
  LuVec3 ab = b - a;
  double l2 = ab.dot(ab);
  double t = l2 > 0 ? std::clamp((q - a).dot(ab) / l2, 0.0, 1.0) : 0.0;
  LuVec3 p = t == 1.0 ? b : a + ab * t;
  LuVec3 d = q - p;
  double d2 = d.dot(d);
  if (d2 < best.distance2 || (d2 == best.distance2 && piece < best.piece))
    best = {piece, t, p, d2};
}

void SegmentGrid::visitCell(int64_t x, int64_t y, int64_t z, const LuVec3& q,
                            NearestPiece& best) const {
  if (x < 0 || y < 0 || z < 0 || x >= m_dims[0] || y >= m_dims[1] || z >= m_dims[2]) return;
  size_t c = static_cast<size_t>((z * m_dims[1] + y) * m_dims[0] + x);
  for (uint32_t i = m_cellStart[c]; i < m_cellStart[c + 1]; ++i) consider(m_cellPieces[i], q, best);
}

NearestPiece SegmentGrid::nearest(const LuVec3& q) const {
  NearestPiece best;
  if (!std::isfinite(q.x) || !std::isfinite(q.y) || !std::isfinite(q.z)) {
    best.point = m_points[m_pieces[0].a];
    best.distance2 = std::numeric_limits<double>::quiet_NaN();
    return best;
  }
  best.distance2 = std::numeric_limits<double>::infinity();
  best.piece = std::numeric_limits<uint32_t>::max();
  int64_t c[3];
  cellOf(q, c);
  const int64_t maxRing = std::max({m_dims[0], m_dims[1], m_dims[2]});
  for (int64_t r = 0; r <= maxRing; ++r) {
    const int64_t x0 = std::max<int64_t>(c[0] - r, 0), x1 = std::min(c[0] + r, m_dims[0] - 1);
    const int64_t y0 = std::max<int64_t>(c[1] - r, 0), y1 = std::min(c[1] + r, m_dims[1] - 1);
    const int64_t z0 = std::max<int64_t>(c[2] - r, 0), z1 = std::min(c[2] + r, m_dims[2] - 1);
    for (int64_t x = x0; x <= x1; ++x)
      for (int64_t y = y0; y <= y1; ++y) {
        bool side = std::abs(x - c[0]) == r || std::abs(y - c[1]) == r;
        if (side) {
          for (int64_t z = z0; z <= z1; ++z) visitCell(x, y, z, q, best);
        } else {
          visitCell(x, y, c[2] - r, q, best);
          if (r > 0) visitCell(x, y, c[2] + r, q, best);
        }
      }
    // Every cell not visited yet is at least r + 1 cells away from q's cell
    // in some axis, so at least r cells' width from q (also when q lies
    // outside the grid, on the far side of its clamped cell).
    double reach = static_cast<double>(r) * m_cell;
    if (best.distance2 <= reach * reach) break;
  }
  return best;
}

}  // namespace lusection

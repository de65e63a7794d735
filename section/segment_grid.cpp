// The sparse grid of polyline pieces: cells about twice as large as a mean
// piece, only the cells a piece's box touches are kept (a hash of cell
// keys), so memory stays linear in the pieces however the polylines spread.
// A query searches rings of cells around its own cell until no unvisited
// cell can be nearer than the best piece found; a query far from every
// piece (more than a few rings) looks at every kept cell instead.
#include "section/segment_grid.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace lusection {

namespace {

constexpr int64_t kAxisCells = int64_t{1} << 21;  // three axes in one 64-bit key
constexpr double kEntriesPerPiece = 8;
constexpr int64_t kRings = 3;
constexpr double kLevelFactor = 8;

}  // namespace

SegmentGrid::SegmentGrid(const std::vector<LuVec3>& points, std::vector<GridPiece> pieces)
    : m_points(points), m_pieces(std::move(pieces)) {
  const double inf = std::numeric_limits<double>::infinity();
  LuVec3 lo{inf, inf, inf}, hi{-inf, -inf, -inf};
  double total = 0;
  for (const GridPiece& p : m_pieces) {
    for (uint32_t i : {p.a, p.b})
      for (int k = 0; k < 3; ++k) {
        lo[k] = std::min(lo[k], points[i][k]);
        hi[k] = std::max(hi[k], points[i][k]);
      }
    total += (points[p.b] - points[p.a]).length();
  }
  if (m_pieces.empty() || !std::isfinite(lo.x + lo.y + lo.z + hi.x + hi.y + hi.z))
    lo = hi = {0, 0, 0};
  m_min = lo;
  m_max = hi;
  double extent = std::max({hi.x - lo.x, hi.y - lo.y, hi.z - lo.z});
  double cell = m_pieces.empty() ? 1 : 2 * total / static_cast<double>(m_pieces.size());
  if (!(cell > extent * 1e-9) || !std::isfinite(cell)) cell = extent > 0 ? extent * 1e-3 : 1;
  cell = std::max(cell, extent / static_cast<double>(kAxisCells - 2));
  // Levels up to one that holds the whole extent in a few cells.
  for (;;) {
    Level level;
    while (!build(level, cell)) cell *= 2;
    m_levels.push_back(std::move(level));
    if (cell * kRings >= extent) break;
    cell *= kLevelFactor;
  }
}

bool SegmentGrid::build(Level& level, double cell) const {
  level.cell = cell;
  for (int k = 0; k < 3; ++k)
    level.dims[k] = static_cast<int64_t>(std::floor((m_max[k] - m_min[k]) / cell)) + 1;
  const double budget = kEntriesPerPiece * static_cast<double>(m_pieces.size()) + 64;
  std::vector<std::pair<uint64_t, uint32_t>> entries;
  entries.reserve(m_pieces.size() * 2);
  for (uint32_t i = 0; i < m_pieces.size(); ++i) {
    int64_t ca[3], cb[3];
    cellOf(level, m_points[m_pieces[i].a], ca);
    cellOf(level, m_points[m_pieces[i].b], cb);
    for (int64_t x = std::min(ca[0], cb[0]); x <= std::max(ca[0], cb[0]); ++x)
      for (int64_t y = std::min(ca[1], cb[1]); y <= std::max(ca[1], cb[1]); ++y)
        for (int64_t z = std::min(ca[2], cb[2]); z <= std::max(ca[2], cb[2]); ++z) {
          // Long pieces across many cells: a coarser grid instead.
          if (static_cast<double>(entries.size()) >= budget) return false;
          entries.push_back({key(x, y, z), i});
        }
  }
  std::sort(entries.begin(), entries.end());
  level.cells.clear();
  level.cells.reserve(entries.size());
  level.cellPieces.resize(entries.size());
  for (size_t i = 0; i < entries.size(); ++i) {
    level.cellPieces[i] = entries[i].second;
    auto [it, added] = level.cells.emplace(entries[i].first, Range{static_cast<uint32_t>(i), 0});
    it->second.end = static_cast<uint32_t>(i + 1);
    (void)added;
  }
  return true;
}

uint64_t SegmentGrid::key(int64_t x, int64_t y, int64_t z) {
  return static_cast<uint64_t>(x) << 42 | static_cast<uint64_t>(y) << 21 | static_cast<uint64_t>(z);
}

void SegmentGrid::cellOf(const Level& level, const LuVec3& p, int64_t c[3]) const {
  for (int k = 0; k < 3; ++k) {
    double f = std::floor((p[k] - m_min[k]) / level.cell);
    if (!(f >= 0)) f = 0;  // NaN too
    c[k] = std::min(static_cast<int64_t>(std::min(f, 9.0e15)), level.dims[k] - 1);
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
  if (d2 < best.distance2 || (d2 == best.distance2 && piece < best.piece)) best = {piece, t, p, d2};
}

void SegmentGrid::visitRange(const Level& level, const Range& r, const LuVec3& q,
                             NearestPiece& best) const {
  for (uint32_t i = r.begin; i < r.end; ++i) consider(level.cellPieces[i], q, best);
}

void SegmentGrid::visitCell(const Level& level, int64_t x, int64_t y, int64_t z, const LuVec3& q,
                            NearestPiece& best) const {
  if (x < 0 || y < 0 || z < 0 || x >= level.dims[0] || y >= level.dims[1] || z >= level.dims[2])
    return;
  auto it = level.cells.find(key(x, y, z));
  if (it != level.cells.end()) visitRange(level, it->second, q, best);
}

void SegmentGrid::searchEveryCell(const Level& level, const LuVec3& q, NearestPiece& best) const {
  for (const auto& [k, range] : level.cells) {
    // The cell's distance from q bounds every piece listed in it (the
    // piece's part inside the cell is at least that far).
    const int64_t c[3] = {static_cast<int64_t>(k >> 42),
                          static_cast<int64_t>((k >> 21) & (kAxisCells - 1)),
                          static_cast<int64_t>(k & (kAxisCells - 1))};
    double d2 = 0;
    for (int a = 0; a < 3; ++a) {
      double lo = m_min[a] + static_cast<double>(c[a]) * level.cell, hi = lo + level.cell;
      double gap = q[a] < lo ? lo - q[a] : q[a] > hi ? q[a] - hi : 0;
      d2 += gap * gap;
    }
    if (d2 <= best.distance2) visitRange(level, range, q, best);
  }
}

NearestPiece SegmentGrid::nearest(const LuVec3& q, size_t& start) const {
  NearestPiece best;
  if (!std::isfinite(q.x) || !std::isfinite(q.y) || !std::isfinite(q.z)) {
    best.point = m_points[m_pieces[0].a];
    best.distance2 = std::numeric_limits<double>::quiet_NaN();
    return best;
  }
  best.distance2 = std::numeric_limits<double>::infinity();
  best.piece = std::numeric_limits<uint32_t>::max();
  // One level finer than last time first, so that the start follows the
  // distances down as well as up.
  size_t first = start > 0 ? start - 1 : 0;
  for (size_t i = std::min(first, m_levels.size() - 1); i < m_levels.size(); ++i)
    if (searchRings(m_levels[i], q, best)) {
      start = i;
      return best;
    }
  start = m_levels.size() - 1;
  searchEveryCell(m_levels.back(), q, best);
  return best;
}

// True when the best piece is found within kRings rings of q's cell.
bool SegmentGrid::searchRings(const Level& level, const LuVec3& q, NearestPiece& best) const {
  int64_t c[3];
  cellOf(level, q, c);
  for (int64_t r = 0; r <= kRings; ++r) {
    const int64_t x0 = std::max<int64_t>(c[0] - r, 0), x1 = std::min(c[0] + r, level.dims[0] - 1);
    const int64_t y0 = std::max<int64_t>(c[1] - r, 0), y1 = std::min(c[1] + r, level.dims[1] - 1);
    const int64_t z0 = std::max<int64_t>(c[2] - r, 0), z1 = std::min(c[2] + r, level.dims[2] - 1);
    for (int64_t x = x0; x <= x1; ++x)
      for (int64_t y = y0; y <= y1; ++y) {
        bool side = std::abs(x - c[0]) == r || std::abs(y - c[1]) == r;
        if (side) {
          for (int64_t z = z0; z <= z1; ++z) visitCell(level, x, y, z, q, best);
        } else {
          visitCell(level, x, y, c[2] - r, q, best);
          if (r > 0) visitCell(level, x, y, c[2] + r, q, best);
        }
      }
    // Every cell not visited yet is at least r + 1 cells away from q's cell
    // in some axis, so at least r cells' width from q (also when q lies
    // outside the grid, on the far side of its clamped cell).
    double reach = static_cast<double>(r) * level.cell;
    if (best.distance2 <= reach * reach) return true;
  }
  return false;
}

}  // namespace lusection

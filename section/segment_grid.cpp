// The sparse grid of polyline pieces: cells about four times as long as a
// mean piece, only the cells a piece's box touches are kept (a flat table of
// cell keys), so memory stays linear in the pieces however the polylines
// spread. Up to three coarser levels (built when a query first needs them)
// file the same pieces under cells 4, 16 and 64 times larger.
// A query first measures the piece that answered the query before it, then
// searches rings of cells around its own cell on the level that suits that
// distance, skipping every cell (and then every piece) whose box cannot
// hold a point nearer than the best found, until no unvisited cell can; a
// query farther from every piece than the coarsest level's rings reach goes
// down the piece tree instead (boxes over runs of consecutive pieces). Ties
// go to the lowest piece index whatever the order pieces are met in, so the
// answer does not depend on the level or the hint a search starts from.
#include "section/segment_grid.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace lusection {

namespace {

constexpr int64_t kAxisCells = int64_t{1} << 21;  // three axes in one 64-bit key
constexpr double kEntriesPerPiece = 8;
constexpr double kCellPieces = 4;  // a finest cell is this many mean pieces long
constexpr int64_t kRings = 3;
constexpr int kLevelShift = 2;  // each level's cell is 2^kLevelShift times the last one's
// Beyond the rings of the coarsest level, whose cells are about 256 mean
// pieces long, the piece tree answers.
constexpr size_t kLevels = 4;
// A query is started on the finest level whose cell is at least this many
// times the last answer's distance.
constexpr double kStartCells = 1;
// Distances are compared with this relative margin, so that rounding never
// skips a cell holding an equally near piece of lower index.
constexpr double kMargin = 1e-12;

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
  double magnitude = std::max({std::fabs(lo.x), std::fabs(lo.y), std::fabs(lo.z), std::fabs(hi.x),
                               std::fabs(hi.y), std::fabs(hi.z)});
  m_slack = 64 * std::numeric_limits<double>::epsilon() * (magnitude + extent);
  double cell = m_pieces.empty() ? 1 : kCellPieces * total / static_cast<double>(m_pieces.size());
  if (!(cell > extent * 1e-9) || !std::isfinite(cell)) cell = extent > 0 ? extent * 1e-3 : 1;
  cell = std::max(cell, extent / static_cast<double>(kAxisCells - 2));
  m_extent = extent;
  Level finest;
  finest.cell = cell;
  placePoints(finest);
  while (!build(finest, 0)) {
    finest.cell *= 2;
    placePoints(finest);
  }
  m_levels.push_back(std::move(finest));
}

// The finest level's cell of every point, and that level's size in cells.
void SegmentGrid::placePoints(Level& finest) {
  for (int k = 0; k < 3; ++k)
    finest.dims[k] = static_cast<int64_t>(std::floor((m_max[k] - m_min[k]) / finest.cell)) + 1;
  m_pointCells.resize(m_points.size());
  for (size_t i = 0; i < m_points.size(); ++i) {
    int64_t c[3];
    cellOf(finest, m_points[i], c);
    for (int k = 0; k < 3; ++k) m_pointCells[i].c[k] = static_cast<int32_t>(c[k]);
  }
}

// The level `i`, built with the levels before it when first asked for;
// nullptr past the coarsest level, one that holds the whole extent in a few
// cells.
const SegmentGrid::Level* SegmentGrid::level(size_t i) {
  while (m_levels.size() <= i) {
    const Level& last = m_levels.back();
    if (m_levels.size() == kLevels || last.cell * kRings >= m_extent) return nullptr;
    Level coarser;
    coarser.cell = last.cell * (1 << kLevelShift);
    const int shift = static_cast<int>(m_levels.size()) * kLevelShift;
    for (int k = 0; k < 3; ++k) coarser.dims[k] = ((m_levels[0].dims[k] - 1) >> shift) + 1;
    // Never over budget: a piece touches no more coarse cells than fine ones.
    build(coarser, shift);
    m_levels.push_back(std::move(coarser));
  }
  return &m_levels[i];
}

// Files every piece under each cell its box touches (the cells of its end
// points at the finest level, shifted down to this level's); false (a
// coarser cell is needed) when that would take more than a few entries per
// piece. A coarse cell covers exactly the fine cells that shift down to it.
bool SegmentGrid::build(Level& level, int shift) const {
  const double budget = kEntriesPerPiece * static_cast<double>(m_pieces.size()) + 64;
  // About one cell per two pieces on the finest level, fewer on each coarser
  // one (the table grows when more come).
  const size_t expected =
      m_levels.empty() ? m_pieces.size() / 2 : m_levels.back().cellStarts.size() / 2;
  level.cells.reset(expected);
  std::vector<uint32_t> counts;
  std::vector<std::pair<uint32_t, uint32_t>> entries;  // cell number, piece
  entries.reserve(m_pieces.size() + m_pieces.size() / 4);
  uint64_t lastKey = FlatKeyTable::kEmpty;
  uint32_t lastNumber = 0;
  for (uint32_t i = 0; i < m_pieces.size(); ++i) {
    const CellIndex &ca = m_pointCells[m_pieces[i].a], &cb = m_pointCells[m_pieces[i].b];
    int64_t lo[3], hi[3];
    for (int k = 0; k < 3; ++k) {
      lo[k] = std::min(ca.c[k], cb.c[k]) >> shift;
      hi[k] = std::max(ca.c[k], cb.c[k]) >> shift;
    }
    for (int64_t x = lo[0]; x <= hi[0]; ++x)
      for (int64_t y = lo[1]; y <= hi[1]; ++y)
        for (int64_t z = lo[2]; z <= hi[2]; ++z) {
          // Long pieces across many cells: a coarser grid instead.
          if (static_cast<double>(entries.size()) >= budget) return false;
          const uint64_t k = key(x, y, z);
          if (k != lastKey) {
            auto [number, added] = level.cells.emplace(k, static_cast<uint32_t>(counts.size()));
            if (added) counts.push_back(0);
            lastKey = k;
            lastNumber = *number;
          }
          ++counts[lastNumber];
          entries.push_back({lastNumber, i});
        }
  }
  level.cellStarts.assign(counts.size() + 1, 0);
  for (size_t n = 0; n < counts.size(); ++n)
    level.cellStarts[n + 1] = level.cellStarts[n] + counts[n];
  level.cellPieces.resize(entries.size());
  std::vector<uint32_t>& next = counts;  // reused: the next free place of each cell
  std::copy(level.cellStarts.begin(), level.cellStarts.end() - 1, next.begin());
  for (const auto& [number, piece] : entries) level.cellPieces[next[number]++] = piece;
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

// How far q lies below the lower face of cell c on the axis (negative when
// above it), and above the upper face; the faces widened by the slack.
double SegmentGrid::gapBelow(const Level& level, int axis, int64_t c, double q) const {
  return m_min[axis] + static_cast<double>(c) * level.cell - m_slack - q;
}
double SegmentGrid::gapAbove(const Level& level, int axis, int64_t c, double q) const {
  return q - (m_min[axis] + static_cast<double>(c + 1) * level.cell + m_slack);
}
// The distance along the axis from q to the slab of cell c (0 inside it).
double SegmentGrid::axisGap(const Level& level, int axis, int64_t c, double q) const {
  return std::max({gapBelow(level, axis, c, q), gapAbove(level, axis, c, q), 0.0});
}

// True when everything at least sqrt(gap2) away from q is farther than the
// best piece (an equally near one is not: it may have a lower index).
bool SegmentGrid::beyond(double gap2, const NearestPiece& best) const {
  return gap2 > best.distance2 * (1 + kMargin);
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

namespace {

// How far v lies outside [lo - slack, hi + slack] (0 inside).
double outside(double lo, double hi, double v, double slack) {
  const double below = lo - slack - v, above = v - hi - slack;
  return below > 0 ? below : above > 0 ? above : 0;
}

// The squared distance from q to the box of the piece from a to b, the box
// widened by the slack: it bounds the piece's distance from q.
double boxGap2(const LuVec3& a, const LuVec3& b, const LuVec3& q, double slack) {
  const double gx = outside(std::min(a.x, b.x), std::max(a.x, b.x), q.x, slack);
  const double gy = outside(std::min(a.y, b.y), std::max(a.y, b.y), q.y, slack);
  const double gz = outside(std::min(a.z, b.z), std::max(a.z, b.z), q.z, slack);
  return gx * gx + gy * gy + gz * gz;
}

}  // namespace

// Most pieces met are passed over on their box, without the full measure.
void SegmentGrid::visitPiece(uint32_t piece, const LuVec3& q, NearestPiece& best) const {
  const GridPiece& p = m_pieces[piece];
  if (!beyond(boxGap2(m_points[p.a], m_points[p.b], q, m_slack), best)) consider(piece, q, best);
}

void SegmentGrid::visitCellNumber(const Level& level, uint32_t n, const LuVec3& q,
                                  NearestPiece& best) const {
  double limit = best.distance2 * (1 + kMargin);  // as in beyond()
  for (uint32_t i = level.cellStarts[n]; i < level.cellStarts[n + 1]; ++i) {
    const GridPiece& p = m_pieces[level.cellPieces[i]];
    if (boxGap2(m_points[p.a], m_points[p.b], q, m_slack) > limit) continue;
    consider(level.cellPieces[i], q, best);
    limit = best.distance2 * (1 + kMargin);
  }
}

void SegmentGrid::visitCell(const Level& level, int64_t x, int64_t y, int64_t z, const LuVec3& q,
                            NearestPiece& best) const {
  if (x < 0 || y < 0 || z < 0 || x >= level.dims[0] || y >= level.dims[1] || z >= level.dims[2])
    return;
  // The cell's distance from q bounds every piece filed in it (the piece's
  // part inside the cell is at least that far).
  const double gx = axisGap(level, 0, x, q.x), gy = axisGap(level, 1, y, q.y),
               gz = axisGap(level, 2, z, q.z);
  if (beyond(gx * gx + gy * gy + gz * gz, best)) return;
  if (const uint32_t* n = level.cells.find(key(x, y, z))) visitCellNumber(level, *n, q, best);
}

// Every piece in the boxes of the piece tree that may hold a nearer point.
void SegmentGrid::searchTree(const LuVec3& q, NearestPiece& best) {
  if (!m_tree) {
    m_tree = std::make_unique<PieceTree>(m_pieces.size(), [&](size_t i, LuVec3& lo, LuVec3& hi) {
      for (uint32_t p : {m_pieces[i].a, m_pieces[i].b})
        for (int k = 0; k < 3; ++k) {
          lo[k] = std::min(lo[k], m_points[p][k]);
          hi[k] = std::max(hi[k], m_points[p][k]);
        }
    });
  }
  m_tree->search(
      q, m_slack, [&] { return best.distance2 * (1 + kMargin); },  // as in beyond()
      [&](size_t piece) { visitPiece(static_cast<uint32_t>(piece), q, best); });
}

// The finest level built whose cells are not too small for a query at this
// squared distance (the number of levels built when none is large enough).
size_t SegmentGrid::levelFor(double distance2) const {
  const double d = std::sqrt(distance2);
  for (size_t i = 0; i < m_levels.size(); ++i)
    if (m_levels[i].cell >= kStartCells * d) return i;
  return m_levels.size();
}

NearestPiece SegmentGrid::nearest(const LuVec3& q, SearchHint& hint) {
  NearestPiece best;
  if (!std::isfinite(q.x) || !std::isfinite(q.y) || !std::isfinite(q.z)) {
    best.point = m_points[m_pieces[0].a];
    best.distance2 = std::numeric_limits<double>::quiet_NaN();
    return best;
  }
  best.distance2 = std::numeric_limits<double>::infinity();
  best.piece = std::numeric_limits<uint32_t>::max();
  // The last answer bounds this one's distance, which picks the level.
  size_t start = 0;
  if (hint.piece < m_pieces.size()) {
    consider(hint.piece, q, best);
    if (best.distance2 < std::numeric_limits<double>::infinity()) start = levelFor(best.distance2);
  }
  bool found = false;
  for (size_t i = start; !found; ++i) {
    const Level* here = level(i);
    if (!here) break;
    found = searchRings(*here, q, best);
  }
  // Farther than the coarsest level's rings reach.
  if (!found) searchTree(q, best);
  if (best.piece < m_pieces.size()) hint.piece = best.piece;
  return best;
}

// True when the best piece is certain after at most kRings rings of cells
// around q's cell.
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
    // Every cell not visited yet lies beyond a face of the block of rings
    // visited, on a side where the grid goes on.
    double gap = std::numeric_limits<double>::infinity();
    for (int k = 0; k < 3; ++k) {
      if (c[k] - r > 0) gap = std::min(gap, gapAbove(level, k, c[k] - r - 1, q[k]));
      if (c[k] + r < level.dims[k] - 1) gap = std::min(gap, gapBelow(level, k, c[k] + r + 1, q[k]));
    }
    if (gap == std::numeric_limits<double>::infinity() || (gap > 0 && beyond(gap * gap, best)))
      return true;
  }
  return false;
}

}  // namespace lusection

// The shapes plot and view share: axes, boxes, segment runs, and nearness
// of points between layers on a uniform grid.
#include "plot_geometry.h"

#include <algorithm>
#include <cstdint>
#include <unordered_map>

namespace luafxs {

namespace {

LuVec3 unit(LuVec3 v) {
  double l = std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
  return l > 1e-300 ? LuVec3{v.x / l, v.y / l, v.z / l} : LuVec3{0, 0, 0};
}

bool finite(const Point2& p) { return std::isfinite(p.u) && std::isfinite(p.v); }

// The points of one layer hashed into square cells of side `cell`.
class Grid {
public:
  Grid(const std::vector<Point2>& points, double cell) : m_points(points), m_cell(cell) {
    for (size_t i = 0; i < points.size(); ++i)
      if (finite(points[i])) m_cells[key(cellOf(points[i].u), cellOf(points[i].v))].push_back(i);
  }
  bool anyWithin(const Point2& p, double tolerance) const {
    if (!finite(p)) return false;
    int64_t cu = cellOf(p.u), cv = cellOf(p.v);
    for (int64_t du = -1; du <= 1; ++du)
      for (int64_t dv = -1; dv <= 1; ++dv) {
        auto it = m_cells.find(key(cu + du, cv + dv));
        if (it == m_cells.end()) continue;
        for (size_t i : it->second) {
          double a = m_points[i].u - p.u, b = m_points[i].v - p.v;
          if (a * a + b * b <= tolerance * tolerance) return true;
        }
      }
    return false;
  }

private:
  int64_t cellOf(double x) const {
    double c = std::floor(x / m_cell);
    return static_cast<int64_t>(std::clamp(c, -1e15, 1e15));
  }
  static uint64_t key(int64_t a, int64_t b) {
    return static_cast<uint64_t>(a) * 0x9E3779B97F4A7C15ull ^ static_cast<uint64_t>(b);
  }
  const std::vector<Point2>& m_points;
  double m_cell;
  std::unordered_map<uint64_t, std::vector<size_t>> m_cells;
};

Box boxOf(const std::vector<Point2>& points) {
  Box b;
  for (const Point2& p : points) b.grow(p);
  return b;
}

}  // namespace

Frame frameFor(const double normal[3]) {
  Frame f;
  LuVec3 n = unit({normal[0], normal[1], normal[2]});
  if (n.x == 0 && n.y == 0 && n.z == 0) n = {0, 0, 1};
  LuVec3 e = std::fabs(n.x) <= std::fabs(n.y) && std::fabs(n.x) <= std::fabs(n.z) ? LuVec3{1, 0, 0}
             : std::fabs(n.y) <= std::fabs(n.z)                                   ? LuVec3{0, 1, 0}
                                                                                  : LuVec3{0, 0, 1};
  double d = n.x * e.x + n.y * e.y + n.z * e.z;
  f.n = n;
  f.u = unit({e.x - n.x * d, e.y - n.y * d, e.z - n.z * d});
  f.v = {n.y * f.u.z - n.z * f.u.y, n.z * f.u.x - n.x * f.u.z, n.x * f.u.y - n.y * f.u.x};
  return f;
}

void Box::grow(const Point2& p) {
  if (!finite(p)) return;
  u0 = std::min(u0, p.u), u1 = std::max(u1, p.u);
  v0 = std::min(v0, p.v), v1 = std::max(v1, p.v);
}

void Box::grow(const Box& b) {
  if (b.empty()) return;
  grow(Point2{b.u0, b.v0});
  grow(Point2{b.u1, b.v1});
}

Box Box::padded(double fraction) const {
  if (empty()) return *this;
  double span = std::max(u1 - u0, v1 - v0);
  double pad = span > 0 ? span * fraction : 1;
  return {u0 - pad, v0 - pad, u1 + pad, v1 + pad};
}

std::vector<Point2> projectAll(const std::vector<LuVec3>& points, const Frame& frame) {
  std::vector<Point2> out;
  out.reserve(points.size());
  for (const LuVec3& p : points) out.push_back(frame.project(p));
  return out;
}

std::vector<std::pair<size_t, size_t>> segmentRuns(const LuAfxsPlane& plane) {
  std::vector<std::pair<size_t, size_t>> runs;
  size_t start = 0, count = plane.points.size();
  for (int32_t end : plane.segments) {
    if (end < 0 || static_cast<size_t>(end) > count || static_cast<size_t>(end) < start) break;
    if (static_cast<size_t>(end) > start) runs.push_back({start, static_cast<size_t>(end)});
    start = static_cast<size_t>(end);
  }
  if (start < count) runs.push_back({start, count});
  return runs;
}

double typicalSpacing(const std::vector<Point2>& points) {
  std::vector<double> steps;
  for (size_t i = 1; i < points.size(); ++i) {
    double d = std::hypot(points[i].u - points[i - 1].u, points[i].v - points[i - 1].v);
    if (std::isfinite(d) && d > 0) steps.push_back(d);
  }
  if (steps.empty()) return 0;
  auto middle = steps.begin() + static_cast<std::ptrdiff_t>(steps.size() / 2);
  std::nth_element(steps.begin(), middle, steps.end());
  return *middle;
}

std::vector<char> nearMask(const std::vector<Point2>& a, const std::vector<Point2>& b,
                           double tolerance) {
  std::vector<char> out(a.size(), 0);
  if (a.empty() || b.empty() || !(tolerance > 0)) return out;
  Grid grid(b, tolerance);
  for (size_t i = 0; i < a.size(); ++i) out[i] = grid.anyWithin(a[i], tolerance) ? 1 : 0;
  return out;
}

Box overlapBox(const std::vector<Point2>& a, const std::vector<Point2>& b) {
  double tolerance = 3 * std::max(typicalSpacing(a), typicalSpacing(b));
  Box box;
  if (!(tolerance > 0)) return box;
  // The longest run of consecutive points of `a` near `b`...
  std::vector<char> nearA = nearMask(a, b, tolerance);
  size_t bestFirst = 0, bestLength = 0;
  for (size_t i = 0; i < a.size();) {
    if (!nearA[i]) {
      ++i;
      continue;
    }
    size_t stop = i;
    while (stop < a.size() && nearA[stop]) ++stop;
    if (stop - i > bestLength) bestFirst = i, bestLength = stop - i;
    i = stop;
  }
  for (size_t i = bestFirst; i < bestFirst + bestLength; ++i) box.grow(a[i]);
  if (box.empty()) return box;
  // ...and the points of `b` near that run.
  std::vector<Point2> run(a.begin() + static_cast<std::ptrdiff_t>(bestFirst),
                          a.begin() + static_cast<std::ptrdiff_t>(bestFirst + bestLength));
  std::vector<char> nearB = nearMask(b, run, tolerance);
  for (size_t i = 0; i < b.size(); ++i)
    if (nearB[i]) box.grow(b[i]);
  return box;
}

std::vector<char> blendedMask(const std::vector<Point2>& unified,
                              const std::vector<const std::vector<Point2>*>& inputs) {
  std::vector<char> kept(unified.size(), 0);
  Box extent = boxOf(unified);
  for (const auto* input : inputs) extent.grow(boxOf(*input));
  if (extent.empty() || inputs.empty()) return std::vector<char>(unified.size(), 0);
  double tolerance = std::max(std::max(extent.u1 - extent.u0, extent.v1 - extent.v0) * 1e-6, 1e-12);
  for (const auto* input : inputs) {
    std::vector<char> hit = nearMask(unified, *input, tolerance);
    for (size_t i = 0; i < kept.size(); ++i) kept[i] |= hit[i];
  }
  bool derived = std::find(kept.begin(), kept.end(), 1) != kept.end();
  std::vector<char> blended(unified.size(), 0);
  if (!derived) return blended;
  for (size_t i = 0; i < unified.size(); ++i) blended[i] = kept[i] ? 0 : 1;
  return blended;
}

std::vector<std::vector<char>> blendMarks(const std::vector<BlendLayer>& plane, size_t files) {
  std::vector<std::vector<char>> marks(plane.size());
  if (files < 2) return marks;
  std::vector<const std::vector<Point2>*> inputs;
  for (const BlendLayer& layer : plane)
    if (layer.file + 1 < files) inputs.push_back(layer.points);
  if (inputs.empty()) return marks;
  for (size_t i = 0; i < plane.size(); ++i)
    if (plane[i].file + 1 == files) marks[i] = blendedMask(*plane[i].points, inputs);
  return marks;
}

size_t drawingFiles(const std::vector<std::vector<BlendLayer>>& planes) {
  size_t files = 0;
  for (const std::vector<BlendLayer>& plane : planes)
    for (const BlendLayer& layer : plane) files = std::max(files, layer.file + 1);
  return files;
}

}  // namespace luafxs

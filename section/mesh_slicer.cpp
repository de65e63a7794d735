// Cutting a triangle mesh with a family of parallel planes. A sweep over the
// planes keeps the faces that cross the current plane (each face enters at
// the first plane it crosses and leaves after the last), so the work is
// linear in faces + cut points. Each crossing face gives one cut piece from
// the edge where its boundary goes down through the plane to the edge where
// it comes back up; pieces are chained through the edges they share (a flat
// table of edge keys, reused from plane to plane), which gives
// counter-clockwise polylines for an outward-wound mesh. The rules for the
// degenerate cases are listed in luAfxsSection.h.
#include <algorithm>
#include <cmath>

#include <luAnaf/luAfxsSection.h>

#include "section/clean_mesh.h"
#include "section/flat_key_table.h"

namespace {

using lusection::CleanMesh;
using lusection::cleanMesh;

constexpr uint32_t kNone = 0xFFFFFFFFu;

uint64_t edgeKey(uint32_t a, uint32_t b) {
  return a < b ? (uint64_t{a} << 32 | b) : (uint64_t{b} << 32 | a);
}

// One face's cut by one plane: it runs from the point on edge `from` to the
// point on edge `to`.
struct Piece {
  uint64_t from, to;
  LuVec3 start, end;
  uint32_t face;  // index into the clean mesh's faces
};

class Slicer {
public:
  Slicer(const CleanMesh& mesh, const LuAfxsPlaneFamily& family, LuAfxsSliceReport& report)
      : m_mesh(mesh), m_family(family), m_report(report) {
    m_heights.reserve(mesh.vertices.size());
    for (const LuVec3& v : mesh.vertices)
      m_heights.push_back((v - family.origin).dot(family.normal));
  }

  void run(std::vector<LuAfxsContour>& out) {
    std::vector<uint32_t> starts, entering;
    facesByFirstPlane(starts, entering);
    std::vector<uint32_t> active;
    for (uint32_t k = 0; k < m_family.count; ++k) {
      std::erase_if(active, [&](uint32_t f) { return m_lastPlane[f] < k; });
      active.insert(active.end(), entering.begin() + starts[k], entering.begin() + starts[k + 1]);
      if (active.empty()) continue;
      m_pieces.clear();
      m_pieces.reserve(active.size());
      for (uint32_t f : active) cutFace(f, k, m_pieces);
      LuAfxsContour contour;
      contour.planeId = k;
      chain(m_pieces, contour);
      if (!contour.points.empty()) out.push_back(std::move(contour));
    }
  }

private:
  double planeHeight(uint32_t k) const { return static_cast<double>(k) * m_family.spacing; }
  // Invariant: a vertex counts as above plane k when its height is >= the
  // plane's, so no vertex ever lies "on" a plane.
  bool above(uint32_t v, uint32_t k) const { return m_heights[v] >= planeHeight(k); }

  // The planes each face crosses: from the first plane above its lowest
  // vertex to the last plane at or below its highest one. The faces whose
  // first plane is k are entering[starts[k], starts[k + 1]), in face order.
  void facesByFirstPlane(std::vector<uint32_t>& starts, std::vector<uint32_t>& entering) {
    size_t faceCount = m_mesh.faces.size() / 3;
    m_lastPlane.assign(faceCount, 0);
    std::vector<uint32_t> firstPlane(faceCount, kNone);
    starts.assign(size_t{m_family.count} + 1, 0);
    double spacing = m_family.spacing > 0 ? m_family.spacing : 1;
    for (size_t f = 0; f < faceCount; ++f) {
      const uint32_t* v = &m_mesh.faces[3 * f];
      double lo = std::min({m_heights[v[0]], m_heights[v[1]], m_heights[v[2]]});
      double hi = std::max({m_heights[v[0]], m_heights[v[1]], m_heights[v[2]]});
      if (!(hi > lo)) continue;  // flat faces never cross (all above or all below)
      int64_t first = firstAbove(lo, spacing), last = lastAtOrBelow(hi, spacing);
      first = std::max<int64_t>(first, 0);
      last = std::min<int64_t>(last, int64_t{m_family.count} - 1);
      if (first > last) continue;
      firstPlane[f] = static_cast<uint32_t>(first);
      ++starts[static_cast<size_t>(first) + 1];
      m_lastPlane[f] = static_cast<uint32_t>(last);
    }
    for (size_t k = 0; k < m_family.count; ++k) starts[k + 1] += starts[k];
    entering.resize(starts.back());
    std::vector<uint32_t> next(starts.begin(), starts.end() - 1);
    for (size_t f = 0; f < faceCount; ++f)
      if (firstPlane[f] != kNone) entering[next[firstPlane[f]]++] = static_cast<uint32_t>(f);
  }

  // The lowest k with planeHeight(k) > h (the same comparison as above()).
  int64_t firstAbove(double h, double spacing) const {
    double g = std::floor(h / spacing);
    if (g < -1) return 0;
    if (g > 4.0e9) return int64_t{m_family.count};
    int64_t k = static_cast<int64_t>(g);
    while (k > 0 && planeHeight(static_cast<uint32_t>(k - 1)) > h) --k;
    while (k < 0 || planeHeight(static_cast<uint32_t>(k)) <= h) {
      if (++k >= int64_t{m_family.count}) return k;
    }
    return k;
  }
  // The highest k with planeHeight(k) <= h.
  int64_t lastAtOrBelow(double h, double spacing) const {
    double g = std::floor(h / spacing);
    if (g < 0) return h >= 0 ? 0 : -1;
    if (g > 4.0e9) return int64_t{m_family.count} - 1;
    int64_t k = std::min<int64_t>(static_cast<int64_t>(g) + 1, int64_t{m_family.count} - 1);
    while (k >= 0 && planeHeight(static_cast<uint32_t>(k)) > h) --k;
    return k;
  }

  // The point where plane k crosses edge (a, b). Computed from the edge's
  // vertices in index order, so both faces of the edge get the same bits.
  LuVec3 edgePoint(uint32_t a, uint32_t b, uint32_t k) const {
    if (a > b) std::swap(a, b);
    double H = planeHeight(k);
    double da = m_heights[a] - H, db = m_heights[b] - H;
    if (da == 0) return m_mesh.vertices[a];
    if (db == 0) return m_mesh.vertices[b];
    double t = da / (da - db);
    const LuVec3 &pa = m_mesh.vertices[a], &pb = m_mesh.vertices[b];
    return pa + (pb - pa) * t;
  }

  void cutFace(uint32_t f, uint32_t k, std::vector<Piece>& pieces) const {
    const uint32_t* v = &m_mesh.faces[3 * f];
    const bool isAbove[3] = {above(v[0], k), above(v[1], k), above(v[2], k)};
    Piece piece{0, 0, {}, {}, f};
    int found = 0;
    for (int i = 0; i < 3; ++i) {
      const int j = i == 2 ? 0 : i + 1;
      if (isAbove[i] && !isAbove[j]) {
        piece.from = edgeKey(v[i], v[j]);
        piece.start = edgePoint(v[i], v[j], k);
        found |= 1;
      } else if (!isAbove[i] && isAbove[j]) {
        piece.to = edgeKey(v[i], v[j]);
        piece.end = edgePoint(v[i], v[j], k);
        found |= 2;
      }
    }
    if (found == 3) pieces.push_back(piece);
  }

  // Links each piece to the piece that starts on the edge where it ends,
  // then walks the chains: open ones from their first piece, then the loops.
  void chain(const std::vector<Piece>& pieces, LuAfxsContour& contour) {
    const uint32_t n = static_cast<uint32_t>(pieces.size());
    // Per start edge, the piece of lowest index leaving it; the others
    // leaving the same edge follow it in nextStarting, in index order.
    lusection::FlatKeyTable& firstStarting = m_firstStarting;
    firstStarting.reset(n);
    std::vector<uint32_t>& nextStarting = m_nextStarting;
    nextStarting.assign(n, kNone);
    for (uint32_t i = n; i-- > 0;) {
      auto [first, added] = firstStarting.emplace(pieces[i].from, i);
      if (!added) {
        // A second cut leaving the same edge: the edge is non-manifold.
        if (nextStarting[*first] == kNone) ++m_report.nonManifoldEdges;
        nextStarting[i] = *first;
        *first = i;
      }
    }
    std::vector<uint32_t>& next = m_next;
    next.assign(n, kNone);
    std::vector<char>& hasPrevious = m_hasPrevious;
    hasPrevious.assign(n, 0);
    size_t heads = n;
    for (uint32_t i = 0; i < n; ++i) {
      const uint32_t* first = firstStarting.find(pieces[i].to);
      if (!first) continue;
      uint32_t best = kNone;
      for (uint32_t j = *first; j != kNone; j = nextStarting[j]) {
        if (!hasPrevious[j] &&
            (best == kNone || m_mesh.faceIds[pieces[j].face] < m_mesh.faceIds[pieces[best].face]))
          best = j;
      }
      if (best == kNone) continue;
      next[i] = best;
      hasPrevious[best] = 1;
      --heads;
    }
    // Each polyline holds at most one point more than its pieces.
    contour.points.reserve(n + heads + 1);
    contour.faces.reserve(n + heads + 1);
    contour.normals.reserve(n + heads + 1);
    std::vector<char>& used = m_used;
    used.assign(n, 0);
    for (uint32_t i = 0; i < n; ++i)
      if (!hasPrevious[i]) emit(pieces, next, used, i, false, contour);
    for (uint32_t i = 0; i < n; ++i)
      if (!used[i]) emit(pieces, next, used, i, true, contour);
  }

  void emit(const std::vector<Piece>& pieces, const std::vector<uint32_t>& next,
            std::vector<char>& used, uint32_t first, bool closed, LuAfxsContour& contour) {
    std::vector<LuVec3>& points = m_points;
    std::vector<uint32_t>& faces = m_faces;  // the piece leaving each point
    points.clear();
    faces.clear();
    points.push_back(pieces[first].start);
    faces.push_back(pieces[first].face);
    uint32_t last = first;
    for (uint32_t i = first; i != kNone && !used[i]; i = next[i]) {
      used[i] = 1;
      last = i;
      if (next[i] != kNone && !used[next[i]]) {
        points.push_back(pieces[i].end);
        faces.push_back(pieces[next[i]].face);
      }
    }
    // A loop closes on its first point; an open chain ends on its last piece.
    points.push_back(closed ? pieces[first].start : pieces[last].end);
    faces.push_back(closed ? pieces[first].face : pieces[last].face);
    appendPolyline(points, faces, closed, contour);
  }

  void appendPolyline(const std::vector<LuVec3>& points, const std::vector<uint32_t>& faces,
                      bool closed, LuAfxsContour& contour) {
    size_t begin = contour.points.size();
    for (size_t i = 0; i < points.size(); ++i) {
      // A repeated point is kept once, with the face of the piece that
      // finally leaves it, so that each point and the next lie on its face.
      if (contour.points.size() > begin && contour.points.back() == points[i]) {
        if (i + 1 < points.size()) contour.faces.back() = faces[i];
        continue;
      }
      contour.points.push_back(points[i]);
      contour.faces.push_back(faces[i]);
    }
    size_t count = contour.points.size() - begin;
    // A polyline that shrank to one point spans nothing.
    if (count < 2) {
      contour.points.resize(begin);
      contour.faces.resize(begin);
      ++m_report.droppedPolylines;
      return;
    }
    if (closed && contour.points.back() != contour.points[begin]) {
      contour.points.push_back(contour.points[begin]);
      contour.faces.push_back(contour.faces[begin]);
    }
    for (size_t i = begin; i < contour.points.size(); ++i) {
      LuVec3 toward = i + 1 < contour.points.size() ? contour.points[i + 1] - contour.points[i]
                                                    : contour.points[i] - contour.points[i - 1];
      contour.normals.push_back(inPlaneNormal(contour.faces[i], toward));
      contour.faces[i] = m_mesh.faceIds[contour.faces[i]];
    }
    contour.segments.push_back(static_cast<int32_t>(contour.points.size()));
    contour.closed.push_back(closed ? 1 : 0);
    ++(closed ? m_report.closedPolylines : m_report.openPolylines);
    m_report.cutPoints += count;
  }

  // The face normal projected into the plane; for a face (nearly) parallel
  // to the plane, the direction of travel turned clockwise, which points out
  // of a counter-clockwise polyline.
  LuVec3 inPlaneNormal(uint32_t f, const LuVec3& toward) const {
    const LuVec3& n = m_family.normal;
    const uint32_t* v = &m_mesh.faces[3 * f];
    const LuVec3 &a = m_mesh.vertices[v[0]], &b = m_mesh.vertices[v[1]], &c = m_mesh.vertices[v[2]];
    LuVec3 fn = (b - a).cross(c - a);
    LuVec3 m = fn - n * fn.dot(n);
    double lm = m.length(), lf = fn.length();
    if (lm > 1e-9 * lf && lm > 0) return m * (1.0 / lm);
    LuVec3 t = toward.cross(n);
    double lt = t.length();
    return lt > 0 ? t * (1.0 / lt) : LuVec3{0, 0, 0};
  }

  const CleanMesh& m_mesh;
  const LuAfxsPlaneFamily& m_family;
  LuAfxsSliceReport& m_report;
  std::vector<double> m_heights;
  std::vector<uint32_t> m_lastPlane;
  // One plane's working storage, kept from plane to plane.
  std::vector<Piece> m_pieces;
  lusection::FlatKeyTable m_firstStarting;
  std::vector<uint32_t> m_nextStarting, m_next;
  std::vector<char> m_hasPrevious, m_used;
  std::vector<LuVec3> m_points;
  std::vector<uint32_t> m_faces;
};

}  // namespace

bool luAfxsSliceMesh(const std::vector<LuVec3>& vertices, const std::vector<uint32_t>& faces,
                     const LuAfxsPlaneFamily& family, std::vector<LuAfxsContour>& out,
                     LuAfxsSliceReport* report) {
  out.clear();
  double nl = family.normal.length();
  if (family.count == 0 || !(std::fabs(nl - 1) < 1e-9)) return false;
  if (family.count > 1 && !(family.spacing > 0)) return false;
  if (!std::isfinite(family.spacing)) return false;
  LuAfxsSliceReport local;
  LuAfxsSliceReport& r = report ? *report : local;
  r = LuAfxsSliceReport{};
  CleanMesh mesh = cleanMesh(vertices, faces, r);
  Slicer(mesh, family, r).run(out);
  return true;
}

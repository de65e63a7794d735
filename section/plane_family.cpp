// The plane families a mesh is cut with, the winding of a mesh, and the
// faces a viewer sees: the small geometry the cut and the partial scans need.
#include <algorithm>
#include <cmath>
#include <limits>

#include <luAnaf/luAfxsSection.h>

namespace {

constexpr double kPi = 3.14159265358979323846;

bool unit(LuVec3& v) {
  double l = v.length();
  if (!(l > 0) || !std::isfinite(l)) return false;
  v = v * (1.0 / l);
  return true;
}

// Lowest and highest height of the vertices along n.
void heightRange(const std::vector<LuVec3>& vertices, const LuVec3& n, double& lo, double& hi) {
  lo = std::numeric_limits<double>::infinity();
  hi = -lo;
  for (const LuVec3& v : vertices) {
    double h = v.dot(n);
    lo = std::min(lo, h);
    hi = std::max(hi, h);
  }
}

// The middle of the vertices' box, moved along n to height h.
LuVec3 pointAtHeight(const std::vector<LuVec3>& vertices, const LuVec3& n, double h) {
  LuBBox box(vertices);
  LuVec3 c = (box.minCorner() + box.maxCorner()) * 0.5;
  return c + n * (h - c.dot(n));
}

}  // namespace

bool luAfxsFamilyByCount(const std::vector<LuVec3>& vertices, LuVec3 normal, uint32_t count,
                         const LuVec3* origin, LuAfxsPlaneFamily& family) {
  if (vertices.empty() || count == 0 || !unit(normal)) return false;
  double lo, hi;
  heightRange(vertices, normal, lo, hi);
  double first = origin ? origin->dot(normal) : lo;
  double spacing = (hi - first) / count;
  if (!(spacing > 0) || !std::isfinite(spacing)) return false;
  family.normal = normal;
  family.count = count;
  family.spacing = spacing;
  family.origin = origin ? *origin : pointAtHeight(vertices, normal, lo + spacing / 2);
  return true;
}

bool luAfxsFamilyBySpacing(const std::vector<LuVec3>& vertices, LuVec3 normal, double spacing,
                           const LuVec3* origin, LuAfxsPlaneFamily& family) {
  if (vertices.empty() || !(spacing > 0) || !std::isfinite(spacing) || !unit(normal)) return false;
  double lo, hi;
  heightRange(vertices, normal, lo, hi);
  double first = origin ? origin->dot(normal) : lo + spacing / 2;
  if (first > hi) return false;
  double planes = std::floor((hi - first) / spacing) + 1;
  if (planes > 0xFFFFFFFFu) return false;
  family.normal = normal;
  family.count = static_cast<uint32_t>(planes);
  family.spacing = spacing;
  family.origin = origin ? *origin : pointAtHeight(vertices, normal, first);
  return true;
}

double luAfxsMeshVolume6(const std::vector<LuVec3>& vertices, const std::vector<uint32_t>& faces) {
  double sum = 0;
  for (size_t f = 0; f + 2 < faces.size(); f += 3) {
    if (faces[f] >= vertices.size() || faces[f + 1] >= vertices.size() ||
        faces[f + 2] >= vertices.size())
      continue;
    const LuVec3 &a = vertices[faces[f]], &b = vertices[faces[f + 1]], &c = vertices[faces[f + 2]];
    sum += a.dot(b.cross(c));
  }
  return sum;
}

std::vector<uint32_t> luAfxsFacesSeenFrom(const std::vector<LuVec3>& vertices,
                                          const std::vector<uint32_t>& faces, LuVec3 direction,
                                          double grazingDegrees) {
  std::vector<uint32_t> seen;
  if (!unit(direction)) return seen;
  // Seen when the angle between the face normal and the direction is below
  // 90 + grazing degrees: cos(angle) > -sin(grazing).
  double limit = -std::sin(grazingDegrees * kPi / 180.0);
  for (size_t f = 0; f + 2 < faces.size(); f += 3) {
    if (faces[f] >= vertices.size() || faces[f + 1] >= vertices.size() ||
        faces[f + 2] >= vertices.size())
      continue;
    const LuVec3 &a = vertices[faces[f]], &b = vertices[faces[f + 1]], &c = vertices[faces[f + 2]];
    LuVec3 n = (b - a).cross(c - a);
    double l = n.length();
    if (!(l > 0)) continue;
    if (n.dot(direction) > limit * l)
      seen.insert(seen.end(), faces.begin() + f, faces.begin() + f + 3);
  }
  return seen;
}

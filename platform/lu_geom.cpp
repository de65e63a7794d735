#include <algorithm>
#include <cmath>

#include <luAnaf/luGeom.h>

LuBBox::LuBBox() = default;

LuBBox::LuBBox(const std::vector<LuVec3>& points) {
  if (points.empty()) return;
  m_min = m_max = points.front();
  for (const LuVec3& p : points) {
    m_min = {std::min(m_min.x, p.x), std::min(m_min.y, p.y), std::min(m_min.z, p.z)};
    m_max = {std::max(m_max.x, p.x), std::max(m_max.y, p.y), std::max(m_max.z, p.z)};
  }
  m_empty = false;
}

bool LuBBox::intersect(const LuBBox& o) const {
  if (m_empty || o.m_empty) return false;
  return m_min.x <= o.m_max.x && o.m_min.x <= m_max.x && m_min.y <= o.m_max.y &&
         o.m_min.y <= m_max.y && m_min.z <= o.m_max.z && o.m_min.z <= m_max.z;
}

LuBBox LuBBox::intersection(const LuBBox& o) const {
  LuBBox box;
  if (!intersect(o)) return box;
  box.m_min = {std::max(m_min.x, o.m_min.x), std::max(m_min.y, o.m_min.y),
               std::max(m_min.z, o.m_min.z)};
  box.m_max = {std::min(m_max.x, o.m_max.x), std::min(m_max.y, o.m_max.y),
               std::min(m_max.z, o.m_max.z)};
  box.m_empty = false;
  return box;
}

bool LuBBox::inside(const LuVec3& p) const {
  if (m_empty) return false;
  return p.x >= m_min.x && p.x <= m_max.x && p.y >= m_min.y && p.y <= m_max.y && p.z >= m_min.z &&
         p.z <= m_max.z;
}

double luAcos(double value) { return std::acos(std::clamp(value, -1.0, 1.0)); }

void luMathPointTrianglePosition(const LuVec3& X, const LuVec3& A, const LuVec3& B,
                                 const LuVec3& /*T*/, double& t, double& u, double& v) {
  u = 0.0;
  v = 0.0;
  LuVec3 ab = B - A;
  double len2 = ab.dot(ab);
  t = len2 == 0.0 ? 0.0 : (X - A).dot(ab) / len2;
}

// Geometry companion module: points, boxes and the two math helpers blending uses.
#pragma once

#include <cmath>
#include <vector>

#include <luAnaf/luExport.h>

// A point or vector of three doubles. 24 bytes, standard layout, trivially
// copyable: vectors of it are written to disk as raw bytes.
struct LuVec3 {
  double x, y, z;

  LuVec3 operator+(const LuVec3& o) const { return {x + o.x, y + o.y, z + o.z}; }
  LuVec3 operator-(const LuVec3& o) const { return {x - o.x, y - o.y, z - o.z}; }
  LuVec3 operator*(double s) const { return {x * s, y * s, z * s}; }
  double dot(const LuVec3& o) const { return x * o.x + y * o.y + z * o.z; }
  LuVec3 cross(const LuVec3& o) const {
    return {y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x};
  }
  double length() const { return std::sqrt(dot(*this)); }
  // Component 0, 1 or 2 (x, y, z); any other index gives z.
  double& operator[](int i) { return i == 0 ? x : (i == 1 ? y : z); }
  double operator[](int i) const { return i == 0 ? x : (i == 1 ? y : z); }
  bool operator==(const LuVec3& o) const = default;
};

inline LuVec3 operator*(double s, const LuVec3& v) { return v * s; }
inline double dot(const LuVec3& a, const LuVec3& b) { return a.dot(b); }
inline LuVec3 cross(const LuVec3& a, const LuVec3& b) { return a.cross(b); }
inline double length(const LuVec3& v) { return v.length(); }

static_assert(sizeof(LuVec3) == 24, "LuVec3 is written to disk as three doubles");

// An axis-aligned bounding box. Bounds are inclusive: boxes that touch
// intersect and a point on a face is inside. An empty box (no points)
// intersects nothing and contains nothing.
class LUANAF_API LuBBox {
public:
  LuBBox();
  explicit LuBBox(const std::vector<LuVec3>& points);
  LuBBox(const LuBBox&) = default;
  LuBBox& operator=(const LuBBox&) = default;

  bool empty() const { return m_empty; }
  const LuVec3& minCorner() const { return m_min; }
  const LuVec3& maxCorner() const { return m_max; }

  bool intersect(const LuBBox& other) const;
  // The overlap of two boxes; empty when they do not intersect.
  LuBBox intersection(const LuBBox& other) const;
  bool inside(const LuVec3& p) const;

private:
  LuVec3 m_min{0, 0, 0};
  LuVec3 m_max{0, 0, 0};
  bool m_empty = true;
};

// Arc cosine in radians; the argument is clamped to [-1, 1] first.
LUANAF_API double luAcos(double value);

// Sets t to ((X - A) . (B - A)) / |B - A|^2, the position of X's foot point
// along the edge from A to B, and u, v to 0. When A and B coincide t is 0.
// T (the third corner of the triangle) is accepted and not needed for t.
LUANAF_API void luMathPointTrianglePosition(const LuVec3& X, const LuVec3& A, const LuVec3& B,
                                            const LuVec3& T, double& t, double& u, double& v);

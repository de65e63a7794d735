// Synthetic scans for the end-to-end tests and the benchmark: two arcs of
// one circle in the plane z = 0, overlapping over a third of their length.
#pragma once

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include <luAnaf/luAnaf.h>

namespace blendscene {

constexpr double kPi = 3.141592653589793;

// An arc of `count` points of the circle of radius `radius` around the
// origin, from angle `from` to angle `to` (radians, either way round). The
// result points are the points plus noise of at most `noise` per axis; the
// normals are radial; one segment; distances from point to result point.
inline LuAfxsPlane arc(size_t count, double radius, double from, double to, double noise,
                       uint32_t seed, uint32_t subsetId) {
  LuAfxsPlane plane;
  plane.planeId = 3;
  plane.subsetId = subsetId;
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> jitter(-noise, noise);
  for (size_t i = 0; i < count; ++i) {
    const double angle =
        from + (to - from) * static_cast<double>(i) / static_cast<double>(count - 1);
    const LuVec3 radial{std::cos(angle), std::sin(angle), 0.0};
    const LuVec3 p{radius * radial.x + jitter(random), radius * radial.y + jitter(random), 0.0};
    const LuVec3 res{p.x + jitter(random) * 0.1, p.y + jitter(random) * 0.1, 0.0};
    plane.points.push_back(p);
    plane.resPoints.push_back(res);
    plane.normals.push_back(radial);
    plane.distances.push_back((p - res).length());
  }
  plane.segments.push_back(static_cast<int32_t>(count));
  return plane;
}

// P and Q of `count` points each, on a circle whose size keeps the spacing
// of the points at `spacing`; each arc spans 3/2 of the overlap, so a third
// of each lies over the other. Q runs the same way as P or the opposite way.
struct Pair {
  LuAfxsPlane P, Q;
};
inline Pair overlappingArcs(size_t count, bool sameWay, double spacing = 0.05,
                            double noise = 0.002) {
  // Each arc spans 120 degrees; P from 0 to 120, Q from 80 to 200.
  const double span = 2.0 * kPi / 3.0;
  const double radius = spacing * static_cast<double>(count - 1) / span;
  const double qFrom = 80.0 * kPi / 180.0;
  Pair pair;
  pair.P = arc(count, radius, 0.0, span, noise, 11, 1);
  pair.Q = sameWay ? arc(count, radius, qFrom, qFrom + span, noise, 23, 2)
                   : arc(count, radius, qFrom + span, qFrom, noise, 23, 2);
  return pair;
}

}  // namespace blendscene

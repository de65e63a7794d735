// Random contours for the comparisons with the literal reference: random
// walks on a coarse lattice (so that equal distances, and so ties, are
// common) cut into a few segments.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include <luAnaf/luAnaf.h>

namespace blendrandom {

// A walk of `count` points with steps of -1, 0 or +1 lattice units of size
// `unit` per axis in x and y (z stays 0), cut into `segments` pieces.
inline LuAfxsPlane walk(std::mt19937& random, size_t count, double unit, size_t segments,
                        LuVec3 start = {0, 0, 0}) {
  std::uniform_int_distribution<int> step(-1, 1);
  LuAfxsPlane plane;
  LuVec3 p = start;
  for (size_t i = 0; i < count; ++i) {
    plane.points.push_back(p);
    plane.normals.push_back({0, 1, 0});
    p = {p.x + unit * step(random), p.y + unit * step(random), 0.0};
  }
  plane.resPoints = plane.points;
  std::uniform_int_distribution<size_t> cut(1, count - 1);
  std::vector<size_t> cuts;
  for (size_t s = 1; s < segments; ++s) cuts.push_back(cut(random));
  cuts.push_back(count);
  std::sort(cuts.begin(), cuts.end());
  cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
  for (size_t c : cuts) plane.segments.push_back(static_cast<int32_t>(c));
  return plane;
}

}  // namespace blendrandom

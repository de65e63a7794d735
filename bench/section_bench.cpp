// Cutting and comparing at size: a closed mesh of about 10^6 triangles (a
// UV sphere) cut into 1,000 planes, and a measured contour of 10^6 points
// compared with a nominal contour of 10^6 points. Beside each, its floor:
// for the cut, one pass over every triangle reading its three vertex
// heights (the least any cut must do); for the compare, the distance of
// every measured point to a nominal point whose index is known (no search).
//
//   cmake -S . -B build/release -DLUANAF_BUILD_BENCH=ON && cmake --build build/release --target
//   section_bench
//   ./build/release/bench/section_bench
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include <luAnaf/luAfxsSection.h>
#include <luAnaf/luAnaf.h>

namespace {

constexpr double kPi = 3.14159265358979323846;

struct Sphere {
  std::vector<LuVec3> vertices;
  std::vector<uint32_t> faces;
};

// rings x segments quads, two triangles each, wound outward; poles are
// rings of coincident vertices (merged by the cut).
Sphere sphere(uint32_t rings, uint32_t segments) {
  Sphere s;
  for (uint32_t r = 0; r <= rings; ++r) {
    double theta = kPi * r / rings;
    for (uint32_t k = 0; k < segments; ++k) {
      double phi = 2 * kPi * k / segments;
      s.vertices.push_back(
          {std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi), std::cos(theta)});
    }
  }
  for (uint32_t r = 0; r < rings; ++r)
    for (uint32_t k = 0; k < segments; ++k) {
      uint32_t a = r * segments + k, b = r * segments + (k + 1) % segments;
      uint32_t c = a + segments, d = b + segments;
      s.faces.insert(s.faces.end(), {a, c, d, a, d, b});
    }
  return s;
}

const Sphere& bigSphere() {
  static const Sphere s = sphere(500, 1000);  // 10^6 triangles
  return s;
}

void BM_Slice1MFaces1000Planes(benchmark::State& state) {
  const Sphere& s = bigSphere();
  LuAfxsPlaneFamily family;
  luAfxsFamilyByCount(s.vertices, {0, 0, 1}, 1000, nullptr, family);
  uint64_t points = 0;
  for (auto _ : state) {
    std::vector<LuAfxsContour> out;
    luAfxsSliceMesh(s.vertices, s.faces, family, out);
    points = 0;
    for (const LuAfxsContour& c : out) points += c.points.size();
    benchmark::DoNotOptimize(out.data());
  }
  state.counters["faces"] = static_cast<double>(s.faces.size() / 3);
  state.counters["cutPoints"] = static_cast<double>(points);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.faces.size() / 3));
}
BENCHMARK(BM_Slice1MFaces1000Planes)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_SliceFloorHeightsPerFace(benchmark::State& state) {
  const Sphere& s = bigSphere();
  for (auto _ : state) {
    double sum = 0;
    for (size_t f = 0; f < s.faces.size(); f += 3) {
      double a = s.vertices[s.faces[f]].z, b = s.vertices[s.faces[f + 1]].z,
             c = s.vertices[s.faces[f + 2]].z;
      sum += std::max({a, b, c}) - std::min({a, b, c});
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.faces.size() / 3));
}
BENCHMARK(BM_SliceFloorHeightsPerFace)->Unit(benchmark::kMillisecond)->UseRealTime();

LuAfxsPlane circle(uint32_t n, double radius, double phase, bool normals) {
  LuAfxsPlane p;
  for (uint32_t i = 0; i < n; ++i) {
    double a = 2 * kPi * (i + phase) / n;
    p.points.push_back({radius * std::cos(a), radius * std::sin(a), 0});
    if (normals) p.normals.push_back({std::cos(a), std::sin(a), 0});
  }
  p.points.push_back(p.points.front());
  if (normals) p.normals.push_back(p.normals.front());
  p.segments = {static_cast<int32_t>(p.points.size())};
  return p;
}

// Compares `measured` with `nominal` in every iteration.
void compareEachIteration(benchmark::State& state, const LuAfxsPlane& measured,
                          const LuAfxsPlane& nominal) {
  LuAfxsPlaneDeviation dev;
  for (auto _ : state) {
    luAfxsComparePlane(measured, nominal, dev);
    benchmark::DoNotOptimize(dev.distances.data());
  }
  state.counters["rms"] = dev.rms;
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(measured.points.size()));
}

void BM_Compare1MAgainst1M(benchmark::State& state) {
  static const LuAfxsPlane nominal = circle(1000000, 100, 0, true);
  static const LuAfxsPlane measured = circle(1000000, 100.01, 0.5, true);
  compareEachIteration(state, measured, nominal);
}
BENCHMARK(BM_Compare1MAgainst1M)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same nominal circle against 2,000 points scattered at random over its
// box and beyond, in no order: no query starts near the last one's answer,
// and most lie far from the circle.
void BM_CompareScattered2K(benchmark::State& state) {
  static const LuAfxsPlane nominal = circle(1000000, 100, 0, true);
  static const LuAfxsPlane measured = [] {
    LuAfxsPlane p;
    uint64_t x = 88172645463325252ull;  // xorshift: the same points on every run
    auto next = [&x] {
      x ^= x << 13;
      x ^= x >> 7;
      x ^= x << 17;
      return static_cast<double>(x >> 11) / 9007199254740992.0 * 300 - 150;
    };
    for (int i = 0; i < 2000; ++i) p.points.push_back({next(), next(), 0});
    p.segments = {static_cast<int32_t>(p.points.size())};
    return p;
  }();
  compareEachIteration(state, measured, nominal);
}
BENCHMARK(BM_CompareScattered2K)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CompareFloorKnownPartner(benchmark::State& state) {
  static const LuAfxsPlane nominal = circle(1000000, 100, 0, true);
  static const LuAfxsPlane measured = circle(1000000, 100.01, 0.5, true);
  for (auto _ : state) {
    std::vector<LuVec3> result(measured.points.size());
    std::vector<double> distances(measured.points.size());
    for (size_t i = 0; i < measured.points.size(); ++i) {
      result[i] = nominal.points[i];
      distances[i] = (measured.points[i] - nominal.points[i]).dot(measured.normals[i]);
    }
    benchmark::DoNotOptimize(distances.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(measured.points.size()));
}
BENCHMARK(BM_CompareFloorKnownPartner)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

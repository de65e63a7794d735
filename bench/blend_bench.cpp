// Blending two overlapping contours (two arcs of one circle, a third of each
// over the other) of 10^3 to 10^6 points each: the time per point of the
// library's blend, which must stay flat as the contours grow, and beside it
// the literal form of the steps that the library answers faster (plain
// nearest-point scans, one-stretch-at-a-time front splices) at 10^4 points.
//
// The allocator is held in one steady state for the whole program (on
// glibc: no memory handed back to the system, no fresh mappings for large
// blocks), so that a figure does not depend on which runs came before it:
// with the default policy a 10^4-point run that follows a 10^6-point one
// reuses warm memory while the first one pays page faults. Set
// LUANAF_BENCH_DEFAULT_MALLOC=1 to measure with the default policy.
//
//   ninja -C build-blend-rel blend_bench && ./build-blend-rel/bench/blend_bench
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <luAnaf/luAnaf.h>

#include "tests/blend/blend_reference.h"
#include "tests/blend/blend_scenes.h"

namespace {

[[maybe_unused]] const bool kSteadyAllocator = [] {
#if defined(__GLIBC__)
  const char* keepDefault = std::getenv("LUANAF_BENCH_DEFAULT_MALLOC");
  if (keepDefault != nullptr && keepDefault[0] == '1') return false;
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  return true;
#else
  return false;
#endif
}();

class BlendBench : public LuAfxsUserDataSet {
public:
  using LuAfxsUserDataSet::BlendXSections;
  // What the literal blend (tests/blend/blend_reference.h) needs.
  using LuAfxsUserDataSet::BlendByCategory;
  using LuAfxsUserDataSet::CategorizBlendPoints;
  using LuAfxsUserDataSet::CheckIsSameDirection;
  using LuAfxsUserDataSet::GetPlaneSegments;
  using LuAfxsUserDataSet::m_BlendedQPointsVector;
  using LuAfxsUserDataSet::m_MapPointIndx2Category;
  using LuAfxsUserDataSet::m_MapPointIndx2PrjctdPoint;
  using LuAfxsUserDataSet::m_VectResultedSegmentsEnd;
  using LuAfxsUserDataSet::m_VectResultedSegmentsIndx;
  using LuAfxsUserDataSet::m_VectResultedSegmentsStart;
  using LuAfxsUserDataSet::m_XSHeader;
  using LuAfxsUserDataSet::UpdateDistanceVector;
};

// Dumps go to a folder that does not exist: the blend tries and skips them.
void noDumps() { LuAfxsUserDataSet::SetXYZDumpDirectory(L"/nonexistent-luanaf-bench-dir/"); }

void perPoint(benchmark::State& state, size_t points) {
  state.counters["per_point"] = benchmark::Counter(
      static_cast<double>(points),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_Blend(benchmark::State& state) {
  noDumps();
  const size_t count = static_cast<size_t>(state.range(0));
  const blendscene::Pair arcs = blendscene::overlappingArcs(count, state.range(1) != 0);
  std::vector<const LuAfxsPlane*> planes{&arcs.P, &arcs.Q};
  for (auto _ : state) {
    LuAfxsPlane out;
    bool blended = false;
    BlendBench::BlendXSections(planes, out, blended);
    if (!blended) state.SkipWithError("not blended");
    benchmark::DoNotOptimize(out.points.data());
  }
  perPoint(state, count);
}
BENCHMARK(BM_Blend)
    ->ArgNames({"points", "sameWay"})
    ->ArgsProduct({{1000, 10000, 100000, 1000000}, {1, 0}})
    ->Unit(benchmark::kMillisecond);

// The floor of a blend: copying both contours' points into a fresh output
// plane with memcpy, the least any blend of them does in memory.
void BM_BlendMemcpyFloor(benchmark::State& state) {
  const size_t count = static_cast<size_t>(state.range(0));
  const blendscene::Pair arcs = blendscene::overlappingArcs(count, state.range(1) != 0);
  for (auto _ : state) {
    LuAfxsPlane out;
    const size_t p = arcs.P.points.size(), q = arcs.Q.points.size();
    out.points.reserve(p + q);
    LuVec3* to = out.points.data();
    std::memcpy(to, arcs.P.points.data(), p * sizeof(LuVec3));
    std::memcpy(to + p, arcs.Q.points.data(), q * sizeof(LuVec3));
    benchmark::DoNotOptimize(to);
    benchmark::ClobberMemory();
  }
  perPoint(state, count);
}
BENCHMARK(BM_BlendMemcpyFloor)
    ->ArgNames({"points", "sameWay"})
    ->ArgsProduct({{1000, 10000, 100000, 1000000}, {1}})
    ->Unit(benchmark::kMillisecond);

void BM_LiteralBlend(benchmark::State& state) {
  noDumps();
  const size_t count = static_cast<size_t>(state.range(0));
  const blendscene::Pair arcs = blendscene::overlappingArcs(count, state.range(1) != 0);
  for (auto _ : state) {
    LuAfxsPlane out;
    blendref::literalBlend<BlendBench>(arcs.P, arcs.Q, out);
    benchmark::DoNotOptimize(out.points.data());
  }
  perPoint(state, count);
}
BENCHMARK(BM_LiteralBlend)
    ->ArgNames({"points", "sameWay"})
    ->ArgsProduct({{1000, 10000}, {1, 0}})
    ->Unit(benchmark::kMillisecond);

}  // namespace

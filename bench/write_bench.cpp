// Writing speed of the writer against a raw fwrite of the same number of
// bytes. Each file has planes x 2 subsets with every field group: points,
// normals, segments, aux groups (one per point), distances and result points.
//
// The default run uses 100 planes. The full size (1,000 planes x 2 subsets x
// 5,000 points, about 1 GB per file) runs when LUANAF_BENCH_FULL is set:
//   LUANAF_BENCH_FULL=1 ./write_bench --benchmark_filter=planes:1000
// Run each benchmark in a process of its own (--benchmark_filter=Writer.*1000,
// Raw.*1000, BufferOnly.*1000) for comparable figures: the allocator's
// thresholds, raised by whatever ran before, decide whether each record's
// buffers cost fresh pages (page faults) or reuse freed ones.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <luAnaf/luAnaf.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr uint32_t kSubsets = 2;
constexpr size_t kSegments = 10;

struct PlaneInput {
  std::vector<LuVec3> points, normals, resPoints;
  std::vector<int> segments;
  std::vector<uint32_t> auxPos, auxCounts;
  std::vector<double> distances;
};

PlaneInput makeInput(size_t n) {
  PlaneInput in;
  for (size_t i = 0; i < n; ++i) {
    double t = static_cast<double>(i) * 0.001;
    in.points.push_back({t, 2 * t, 3 * t});
    in.normals.push_back({0, 0, 1});
    in.resPoints.push_back({t + 0.01, 2 * t, 3 * t});
    in.auxPos.push_back(static_cast<uint32_t>(i));
    in.auxCounts.push_back(1);
    in.distances.push_back(0.01);
  }
  for (size_t s = 1; s <= kSegments; ++s)
    in.segments.push_back(static_cast<int>(n * s / kSegments));
  return in;
}

const double (*raw(const std::vector<LuVec3>& v))[3] {
  return reinterpret_cast<const double(*)[3]>(v.data());
}

fs::path benchFile(const char* name) {
  fs::path dir = fs::temp_directory_path() / ("luanaf-bench-" + std::to_string(getpid()));
  fs::create_directories(dir);
  return dir / name;
}

LuAfxsHeader header(uint64_t planes) {
  LuAfxsHeader h;
  h.version = 1;
  h.normal[2] = 1;
  h.numPlanes = planes;
  h.distBwPlanes = 0.5;
  return h;
}

// Writes one whole file through the writer; returns its size.
uint64_t writeWithLink(const fs::path& file, uint32_t planes, const PlaneInput& in) {
  {
    LuAfxsCreateLink link(file.wstring().c_str());
    link.setHeader(header(planes));
    LuAfxsCamerasTable cameras;
    cameras.cameras = {{1000, 0, 250}, {-1000, 0, 250}};
    link.setCameras(cameras);
    if (!link.create(true)) return 0;
    const size_t n = in.points.size();
    for (uint32_t plane = 0; plane < planes; ++plane) {
      for (uint32_t subset = 1; subset <= kSubsets; ++subset) {
        LuAfxsCreateData data(link, plane, subset);
        data.setPoints(raw(in.points), n);
        data.setNormals(raw(in.normals), n);
        data.setSegments(in.segments.data(), in.segments.size());
        data.setAuxCtrlPos(in.auxPos.data(), n, in.auxCounts.data(), n);
        data.setDistances(in.distances.data(), n);
        data.setResPoints(raw(in.resPoints), n);
        if (!data.flush()) return 0;
      }
    }
    link.closeFile(true);
    link.release();
  }
  return fs::file_size(file);
}

void BM_WriterFile(benchmark::State& state) {
  const uint32_t planes = static_cast<uint32_t>(state.range(0));
  const PlaneInput in = makeInput(static_cast<size_t>(state.range(1)));
  const fs::path file = benchFile("writer.afxs");
  uint64_t bytes = 0;
  for (auto _ : state) {
    // Both benchmarks start each iteration without a file.
    state.PauseTiming();
    fs::remove(file);
    state.ResumeTiming();
    bytes = writeWithLink(file, planes, in);
    if (bytes == 0) state.SkipWithError("the writer failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes * state.iterations()));
  state.counters["file_MB"] = static_cast<double>(bytes) / 1e6;
  fs::remove_all(file.parent_path());
}

// The same number of bytes, in chunks of one record's size, with plain stdio.
void BM_RawFwrite(benchmark::State& state) {
  const uint32_t planes = static_cast<uint32_t>(state.range(0));
  const PlaneInput in = makeInput(static_cast<size_t>(state.range(1)));
  const fs::path reference = benchFile("reference.afxs");
  const uint64_t total = writeWithLink(reference, planes, in);
  fs::remove(reference);
  const uint64_t records = uint64_t{planes} * kSubsets;
  const size_t chunk = static_cast<size_t>(total / records);
  std::vector<char> buffer(chunk, 'x');
  const fs::path file = benchFile("raw.bin");
  for (auto _ : state) {
    state.PauseTiming();
    fs::remove(file);
    state.ResumeTiming();
    FILE* f = std::fopen(file.c_str(), "wb");
    uint64_t left = total;
    while (left > 0) {
      size_t n = static_cast<size_t>(std::min<uint64_t>(left, chunk));
      if (std::fwrite(buffer.data(), 1, n, f) != n) state.SkipWithError("fwrite failed");
      left -= n;
    }
    std::fclose(f);
  }
  state.SetBytesProcessed(static_cast<int64_t>(total * state.iterations()));
  state.counters["file_MB"] = static_cast<double>(total) / 1e6;
  fs::remove_all(file.parent_path());
}

// Only the copies into the data objects that the writer's interface makes
// (each set call keeps its own copy), without any file: the part of the
// writer's time that a raw fwrite of ready bytes does not have.
void BM_BufferOnly(benchmark::State& state) {
  const uint32_t planes = static_cast<uint32_t>(state.range(0));
  const PlaneInput in = makeInput(static_cast<size_t>(state.range(1)));
  LuAfxsCreateLink link(benchFile("unused.afxs").wstring().c_str());
  const size_t n = in.points.size();
  for (auto _ : state) {
    for (uint32_t plane = 0; plane < planes; ++plane) {
      for (uint32_t subset = 1; subset <= kSubsets; ++subset) {
        LuAfxsCreateData data(link, plane, subset);
        data.setPoints(raw(in.points), n);
        data.setNormals(raw(in.normals), n);
        data.setSegments(in.segments.data(), in.segments.size());
        data.setAuxCtrlPos(in.auxPos.data(), n, in.auxCounts.data(), n);
        data.setDistances(in.distances.data(), n);
        data.setResPoints(raw(in.resPoints), n);
        benchmark::DoNotOptimize(data.plane().points.data());
      }
    }
  }
  const uint64_t perRecord = n * (3 * 24 + 4 * 4 + 8) + in.segments.size() * 4;
  state.SetBytesProcessed(static_cast<int64_t>(perRecord * planes * kSubsets * state.iterations()));
  fs::remove_all(benchFile("unused.afxs").parent_path());
}

void sizes(benchmark::internal::Benchmark* b) {
  b->Args({100, 5000});
  if (std::getenv("LUANAF_BENCH_FULL") != nullptr) b->Args({1000, 5000});
  b->ArgNames({"planes", "points"})->Unit(benchmark::kMillisecond)->UseRealTime();
}

BENCHMARK(BM_WriterFile)->Apply(sizes);
BENCHMARK(BM_RawFwrite)->Apply(sizes);
BENCHMARK(BM_BufferOnly)->Apply(sizes);

}  // namespace

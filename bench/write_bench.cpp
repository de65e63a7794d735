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

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <luAnaf/luAnaf.h>

#include "bench/bench_files.h"

namespace {

using namespace luanafbench;

constexpr uint32_t kSubsets = 2;

// Writes one whole file through the writer, reserving `reserved` bytes of
// room first when it is not 0; returns its size.
uint64_t writeWithLink(const fs::path& file, uint32_t planes, const PlaneInput& in,
                       uint64_t reserved = 0) {
  return writeFile(file, planes, kSubsets, in, LU_AFXS_MASK_ALL, true, reserved);
}

void writerFile(benchmark::State& state, bool reserve) {
  const uint32_t planes = static_cast<uint32_t>(state.range(0));
  const PlaneInput in = makeInput(static_cast<size_t>(state.range(1)));
  const fs::path file = benchDir("write") / "writer.afxs";
  // A client that reserves knows what it writes: here the size of the same
  // file written once before the timing.
  const uint64_t reserved = reserve ? writeWithLink(file, planes, in) : 0;
  uint64_t bytes = 0;
  for (auto _ : state) {
    // Every benchmark starts each iteration without a file.
    state.PauseTiming();
    fs::remove(file);
    state.ResumeTiming();
    bytes = writeWithLink(file, planes, in, reserved);
    if (bytes == 0) state.SkipWithError("the writer failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes * state.iterations()));
  state.counters["file_MB"] = static_cast<double>(bytes) / 1e6;
  fs::remove(file);
}

// The link reserves the file's room ahead on its own as the file grows.
void BM_WriterFile(benchmark::State& state) { writerFile(state, false); }

// The same, the file's whole room reserved after the create
// (LuAfxsCreateLink::reserve), as a client that knows its sizes can.
void BM_WriterFileReserved(benchmark::State& state) { writerFile(state, true); }

// The arrays of one record as a client holds them in its own vectors.
struct ClientRecord {
  std::vector<LuVec3> points, normals, resPoints;
  std::vector<int32_t> segments;
  std::vector<uint32_t> auxPos, auxCounts;
  std::vector<double> distances;
};

// The same file as BM_WriterFile, from records the client has ready in its
// own vectors (made before the timing, like the floor's ready bytes), handed
// over with the setters that take vectors: no copy per set call.
void BM_WriterFileMoveIn(benchmark::State& state) {
  const uint32_t planes = static_cast<uint32_t>(state.range(0));
  const PlaneInput in = makeInput(static_cast<size_t>(state.range(1)));
  const fs::path file = benchDir("write") / "writer_move.afxs";
  std::vector<ClientRecord> records(size_t{planes} * kSubsets);
  uint64_t bytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    fs::remove(file);
    for (ClientRecord& r : records) {
      r.points = in.points;
      r.normals = in.normals;
      r.resPoints = in.resPoints;
      r.segments.assign(in.segments.begin(), in.segments.end());
      r.auxPos = in.auxPos;
      r.auxCounts = in.auxCounts;
      r.distances = in.distances;
    }
    state.ResumeTiming();
    {
      LuAfxsCreateLink link(file.wstring().c_str());
      setUpLink(link, planes, true);
      bool ok = link.create(true);
      for (uint32_t plane = 0; plane < planes && ok; ++plane) {
        for (uint32_t subset = 1; subset <= kSubsets && ok; ++subset) {
          ClientRecord& r = records[plane * kSubsets + subset - 1];
          LuAfxsCreateData data(link, plane, subset);
          data.setPoints(std::move(r.points));
          data.setNormals(std::move(r.normals));
          data.setSegments(std::move(r.segments));
          data.setAuxCtrlPos(std::move(r.auxPos), std::move(r.auxCounts));
          data.setDistances(std::move(r.distances));
          data.setResPoints(std::move(r.resPoints));
          ok = data.flush();
        }
      }
      link.closeFile(true);
      link.release();
      if (!ok || !link.isOK()) state.SkipWithError("the writer failed");
    }
    bytes = fs::file_size(file);
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes * state.iterations()));
  state.counters["file_MB"] = static_cast<double>(bytes) / 1e6;
  fs::remove(file);
}

// The record bodies of BM_WriterFileMoveIn (every block's identifier, count
// and array, in the writer's order), each with one writev straight from
// the client's arrays, made the same way before the timing; no file header,
// record heads or links. What writing those bytes from where a client
// holds them costs at the least: the writer's floor without a copy.
void BM_RawWritevClientArrays(benchmark::State& state) {
  const uint32_t planes = static_cast<uint32_t>(state.range(0));
  const PlaneInput in = makeInput(static_cast<size_t>(state.range(1)));
  const fs::path file = benchDir("write") / "writev.bin";
  struct Arrays {
    ClientRecord r;
    std::vector<uint32_t> auxOffsets, auxFirst;
  };
  std::vector<Arrays> records(size_t{planes} * kSubsets);
  uint64_t bytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    fs::remove(file);
    for (Arrays& a : records) {
      a.r.points = in.points;
      a.r.normals = in.normals;
      a.r.resPoints = in.resPoints;
      a.r.segments.assign(in.segments.begin(), in.segments.end());
      a.r.auxPos = in.auxPos;
      a.r.auxCounts = in.auxCounts;
      a.r.distances = in.distances;
      a.auxOffsets = in.auxOffsets;
      a.auxFirst = in.auxFirst;
    }
    state.ResumeTiming();
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    bool ok = fd >= 0;
    bytes = 0;
    for (size_t i = 0; ok && i < records.size(); ++i) {
      Arrays& a = records[i];
      uint32_t heads[9][2];
      iovec pieces[18];
      size_t n = 0;
      auto block = [&](uint32_t id, const void* data, size_t size) {
        uint32_t* head = heads[n / 2];
        head[0] = id;
        head[1] = static_cast<uint32_t>(size);
        pieces[n] = {head, sizeof heads[0]};
        pieces[n + 1] = {const_cast<void*>(data), size};
        n += 2;
      };
      block(0, a.r.points.data(), a.r.points.size() * sizeof(LuVec3));
      block(1, a.r.normals.data(), a.r.normals.size() * sizeof(LuVec3));
      block(2, a.r.segments.data(), a.r.segments.size() * sizeof(int32_t));
      block(7, a.r.auxPos.data(), a.r.auxPos.size() * sizeof(uint32_t));
      block(8, a.auxOffsets.data(), a.auxOffsets.size() * sizeof(uint32_t));
      block(9, a.r.auxCounts.data(), a.r.auxCounts.size() * sizeof(uint32_t));
      block(3, a.auxFirst.data(), a.auxFirst.size() * sizeof(uint32_t));
      block(6, a.r.distances.data(), a.r.distances.size() * sizeof(double));
      block(5, a.r.resPoints.data(), a.r.resPoints.size() * sizeof(LuVec3));
      size_t want = 0;
      for (size_t k = 0; k < n; ++k) want += pieces[k].iov_len;
      ok = ::writev(fd, pieces, static_cast<int>(n)) == static_cast<ssize_t>(want);
      bytes += want;
    }
    if (fd < 0 || ::close(fd) != 0 || !ok) state.SkipWithError("writev failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes * state.iterations()));
  state.counters["file_MB"] = static_cast<double>(bytes) / 1e6;
  fs::remove(file);
}

// The same number of bytes as the writer's file, with plain stdio, in
// chunks of `chunkSize` bytes (0: one record's size).
void rawFwrite(benchmark::State& state, size_t chunkSize, const char* name, bool reserve = false) {
  const uint32_t planes = static_cast<uint32_t>(state.range(0));
  const PlaneInput in = makeInput(static_cast<size_t>(state.range(1)));
  const fs::path reference = benchDir("write") / (std::string(name) + ".afxs");
  const uint64_t total = writeWithLink(reference, planes, in);
  fs::remove(reference);
  if (chunkSize == 0) chunkSize = static_cast<size_t>(total / (uint64_t{planes} * kSubsets));
  const std::vector<char> chunk(chunkSize, 'x');
  const fs::path file = benchDir("write") / (std::string(name) + ".bin");
  for (auto _ : state) {
    state.PauseTiming();
    fs::remove(file);
    state.ResumeTiming();
    if (!fwriteInChunks(file, total, chunk, reserve)) state.SkipWithError("fwrite failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(total * state.iterations()));
  state.counters["file_MB"] = static_cast<double>(total) / 1e6;
  fs::remove(file);
}

// The writer's own file, its bytes held in memory, with plain stdio in
// chunks of `chunkSize` bytes (0: one record's size). Like the client
// records of BM_WriterFileMoveIn, the bytes are distinct and rewritten
// before each timing (they stay in the caches as far as those reach),
// where rawFwrite sends one small chunk that stays in the caches.
void rawFwriteFileBytes(benchmark::State& state, size_t chunkSize, const char* name) {
  const uint32_t planes = static_cast<uint32_t>(state.range(0));
  const PlaneInput in = makeInput(static_cast<size_t>(state.range(1)));
  const fs::path reference = benchDir("write") / (std::string(name) + ".afxs");
  const uint64_t total = writeWithLink(reference, planes, in);
  std::vector<char> original(static_cast<size_t>(total));
  FILE* f = std::fopen(reference.string().c_str(), "rb");
  const bool read = f != nullptr && std::fread(original.data(), 1, original.size(), f) == total;
  if (f != nullptr) std::fclose(f);
  fs::remove(reference);
  if (!read) state.SkipWithError("the reference file could not be read");
  if (chunkSize == 0) chunkSize = static_cast<size_t>(total / (uint64_t{planes} * kSubsets));
  std::vector<char> bytes(original.size());
  const fs::path file = benchDir("write") / (std::string(name) + ".bin");
  for (auto _ : state) {
    state.PauseTiming();
    fs::remove(file);
    std::copy(original.begin(), original.end(), bytes.begin());
    state.ResumeTiming();
    FILE* out = std::fopen(file.string().c_str(), "wb");
    bool ok = out != nullptr;
    for (size_t at = 0; ok && at < bytes.size(); at += chunkSize) {
      const size_t n = std::min(chunkSize, bytes.size() - at);
      ok = std::fwrite(bytes.data() + at, 1, n, out) == n;
    }
    if (out == nullptr || std::fclose(out) != 0 || !ok) state.SkipWithError("fwrite failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(total * state.iterations()));
  state.counters["file_MB"] = static_cast<double>(total) / 1e6;
  fs::remove(file);
}

// In chunks of one record's size.
void BM_RawFwrite(benchmark::State& state) { rawFwrite(state, 0, "raw"); }

// The file's own bytes, in chunks of one record's size and of 1 MiB.
void BM_RawFwriteFileBytes(benchmark::State& state) { rawFwriteFileBytes(state, 0, "raw_bytes"); }
void BM_RawFwriteFileBytes1MiB(benchmark::State& state) {
  rawFwriteFileBytes(state, size_t{1} << 20, "raw_bytes_1mib");
}

// In 1 MiB chunks.
void BM_RawFwrite1MiB(benchmark::State& state) { rawFwrite(state, size_t{1} << 20, "raw_1mib"); }

// The same into a file whose room was reserved first: the floor of
// BM_WriterFileReserved.
void BM_RawFwrite1MiBReserved(benchmark::State& state) {
  rawFwrite(state, size_t{1} << 20, "raw_1mib_reserved", true);
}

// Only the copies into the data objects that the writer's interface makes
// (each set call keeps its own copy), without any file: the part of the
// writer's time that a raw fwrite of ready bytes does not have.
void BM_BufferOnly(benchmark::State& state) {
  const uint32_t planes = static_cast<uint32_t>(state.range(0));
  const PlaneInput in = makeInput(static_cast<size_t>(state.range(1)));
  LuAfxsCreateLink link((benchDir("write") / "unused.afxs").wstring().c_str());
  for (auto _ : state) {
    for (uint32_t plane = 0; plane < planes; ++plane) {
      for (uint32_t subset = 1; subset <= kSubsets; ++subset) {
        LuAfxsCreateData data(link, plane, subset);
        fill(data, in, LU_AFXS_MASK_ALL);
        benchmark::DoNotOptimize(data.plane().points.data());
      }
    }
  }
  const uint64_t perRecord = in.size() * (3 * 24 + 4 * 4 + 8) + in.segments.size() * 4;
  state.SetBytesProcessed(static_cast<int64_t>(perRecord * planes * kSubsets * state.iterations()));
}

void sizes(benchmark::internal::Benchmark* b) {
  b->Args({100, 5000});
  if (std::getenv("LUANAF_BENCH_FULL") != nullptr) b->Args({1000, 5000});
  b->ArgNames({"planes", "points"})->Unit(benchmark::kMillisecond)->UseRealTime();
}

BENCHMARK(BM_WriterFile)->Apply(sizes);
BENCHMARK(BM_WriterFileReserved)->Apply(sizes);
BENCHMARK(BM_WriterFileMoveIn)->Apply(sizes);
BENCHMARK(BM_RawWritevClientArrays)->Apply(sizes);
BENCHMARK(BM_RawFwrite)->Apply(sizes);
BENCHMARK(BM_RawFwrite1MiB)->Apply(sizes);
BENCHMARK(BM_RawFwrite1MiBReserved)->Apply(sizes);
BENCHMARK(BM_RawFwriteFileBytes)->Apply(sizes);
BENCHMARK(BM_RawFwriteFileBytes1MiB)->Apply(sizes);
BENCHMARK(BM_BufferOnly)->Apply(sizes);

}  // namespace
